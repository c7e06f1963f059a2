// Forged messages of servers and punches of strangers: the whole engine stays as it was, byte for
// byte, says nothing and logs nothing. Each in every situation that a client can be in.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "tests/support/server_rig.h"
#include "tests/support/virtual_time.h"

using testing::IsEmpty;
using testing::SizeIs;
using Bytes = ClientRig::Bytes;

namespace {

const lund_rv_endpoint LAN = EnginePair::HOST_LAN;
const lund_rv_endpoint WAN = EnginePair::HOST_WAN;
const lund_rv_endpoint STRANGER = endpoint("198.51.100.200:9877");
const server_peer& SERVER = ServerRig::SERVERS[0];
const server_peer& OTHER_SERVER = ServerRig::SERVERS[1];

struct Situation {
  const char* name;
  std::function<void(ServerRig&)> reach;
};

const std::vector<Situation> SITUATIONS = {
    {"idle", [](ServerRig&) {}},
    {"asked",
     [](ServerRig& rig) {
       lund_client_connect(rig.client);
       rig.tick();
     }},
    {"found", [](ServerRig& rig) { rig.find(); }},
    {"a session up through the relay, a punched path beside it",
     [](ServerRig& rig) {
       rig.find();
       rig.say(rig.bound());
       lund_session host;
       rig.receive(SERVER.address, rig.answer(rig.take(LUND_PKT_HS_INIT).back().bytes, &host));
       rig.punch(WAN, rig.host_punch());
       rig.tick_for_ms(100);
     }},
    {"pairing",
     [](ServerRig& rig) {
       lund_client_pair(rig.client, "123456", 0);
       rig.tick();
       rig.say(rig.result());
     }},
};

// A rig in a situation, and its engine as it stood then.
class Besieged : public ServerRig {
 public:
  explicit Besieged(const Situation& situation) : trace_(trace_of(situation)) {
    situation.reach(*this);
    virtual_time::advance_ms(10);
    sent.clear();
    log.clear();
    before_ = bytes_of(*client);
  }
  void expect_nothing(const char* what, const lund_rv_endpoint& from, const Bytes& bytes) {
    ASSERT_FALSE(bytes.empty()) << what;
    EXPECT_EQ(receive(from, bytes), LUND_RX_NONE) << what;
    EXPECT_EQ(std::memcmp(client, before_.data(), before_.size()), 0) << what;
    EXPECT_THAT(sent, IsEmpty()) << what;
    EXPECT_THAT(log, IsEmpty()) << what;
  }
  // The message as others than the server could send it.
  void expect_only_the_server_counts(const lund_rv_message& message) {
    const Bytes untagged = message_with(nullptr, message);
    std::uint8_t zero_key[32] = {};
    expect_nothing("a stranger with the key", STRANGER, SERVER.say(message));
    expect_nothing("the host with the key", WAN, SERVER.say(message));
    expect_nothing("the other server with this one's key", OTHER_SERVER.address,
                   SERVER.say(message));
    expect_nothing("the server's address, another port", another_port(), SERVER.say(message));
    expect_nothing("the server with the other's key", SERVER.address, OTHER_SERVER.say(message));
    expect_nothing("the server with a zero key", SERVER.address, message_with(zero_key, message));
    expect_nothing("the server without a tag", SERVER.address, untagged);
    Bytes bytes = SERVER.say(message);
    bytes.push_back(0);
    expect_nothing("a byte more", SERVER.address, bytes);
    bytes.resize(bytes.size() - 2);
    expect_nothing("a byte less", SERVER.address, bytes);
    bytes = SERVER.say(message);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      for (int bit = 0; bit < 8; ++bit) {
        bytes[i] ^= static_cast<std::uint8_t>(1 << bit);
        expect_nothing("a bit changed", SERVER.address, bytes);
        bytes[i] ^= static_cast<std::uint8_t>(1 << bit);
      }
    }
  }
  void expect_nothing_said(const char* what, const lund_rv_message& message) {
    expect_nothing(what, SERVER.address, SERVER.say(message));
  }

 private:
  static Bytes message_with(const std::uint8_t* key, const lund_rv_message& message) {
    Bytes bytes(LUND_RV_MESSAGE_MAX);
    bytes.resize(lund_rv_encode(bytes.data(), bytes.size(), key, &message));
    return bytes;
  }
  static lund_rv_endpoint another_port() {
    lund_rv_endpoint address = SERVER.address;
    ++address.port;
    return address;
  }
  static testing::ScopedTrace trace_of(const Situation& situation) {
    return {__FILE__, __LINE__, situation.name};
  }
  testing::ScopedTrace trace_;
  Bytes before_;
};

}  // namespace

TEST(ClientServersHostile, AForgedBoundIsNothing) {
  for (const Situation& situation : SITUATIONS) {
    Besieged rig(situation);
    for (const int status : {0, 1}) {
      lund_rv_message bound = rig.bound(static_cast<std::uint8_t>(status));
      rig.expect_only_the_server_counts(bound);
      for (int bit = 0; bit < 32; ++bit) {
        bound.allocation = rig.state().allocation ^ 1U << bit;
        rig.expect_nothing_said("another allocation", bound);
      }
    }
    // Of a server that hasn't found the host: even the number that stands in its record.
    rig.expect_nothing("the other server's", OTHER_SERVER.address,
                       OTHER_SERVER.say(rig.bound(0, 1)));
  }
}

TEST(ClientServersHostile, AForgedLookupResultIsNothing) {
  for (const Situation& situation : SITUATIONS) {
    Besieged rig(situation);
    lund_rv_message result = rig.result(0xBAD);
    result.lan_count = 2;
    result.lan[0] = STRANGER;
    rig.expect_only_the_server_counts(result);
    rig.expect_only_the_server_counts(rig.failure(1));
    for (int bit = 0; bit < 32; ++bit) {
      result.nonce = rig.state().nonce ^ 1U << bit;
      rig.expect_nothing_said("another nonce", result);
      result.status = 1;
      rig.expect_nothing_said("another nonce of a failure", result);
      result.status = 0;
    }
    if (rig.state(1).nonce == rig.state(0).nonce) continue;  // before the first start
    result.nonce = rig.state(1).nonce;
    rig.expect_nothing_said("the other server's nonce", result);
  }
}

TEST(ClientServersHostile, AForgedErrorIsNothing) {
  for (const Situation& situation : SITUATIONS) {
    Besieged rig(situation);
    lund_rv_message error = server_peer::of_type(LUND_RV_ERROR);
    error.nonce = rig.state().nonce;
    for (const int status : {0, 2, 4}) {
      error.status = static_cast<std::uint8_t>(status);
      rig.expect_only_the_server_counts(error);
    }
    for (int bit = 0; bit < 32; ++bit) {
      error.nonce = rig.state().nonce ^ 1U << bit;
      rig.expect_nothing_said("another nonce", error);
    }
  }
}

TEST(ClientServersHostile, AForgedPunchIsNothingAndGetsNoAnswer) {
  for (const Situation& situation : SITUATIONS) {
    Besieged rig(situation);
    for (const std::uint8_t type : {LUND_RV_PUNCH, LUND_RV_PUNCH_ACK}) {
      const auto punch = [type](const std::uint8_t token[16]) {
        return peer::punch(type, token, 5);
      };
      std::uint8_t token[16] = {};
      for (const lund_rv_endpoint& from : {WAN, LAN, STRANGER, SERVER.address})
        rig.expect_nothing("no token", from, punch(token));
      rig.expect_nothing("a token of a server that hasn't found the host", WAN,
                         punch(rig.result(0xA110C, 1).punch_token));
      if (rig.state().state != LUND_LOOKUP_FOUND) {
        rig.expect_nothing("a token of before", WAN, punch(rig.result().punch_token));
        continue;
      }
      rig.expect_nothing("the allocation's token", WAN, punch(rig.state().token));
      for (int bit = 0; bit < 128; ++bit) {
        std::memcpy(token, rig.state().punch_token, sizeof token);
        token[bit / 8] ^= static_cast<std::uint8_t>(1 << bit % 8);
        rig.expect_nothing("another token", WAN, punch(token));
      }
      lund_rv_message tagged = rig.host_punch();
      tagged.type = type;
      rig.expect_nothing("with a tag, from the server", SERVER.address, SERVER.say(tagged));
      rig.expect_nothing("with a tag, from the host", WAN, SERVER.say(tagged));
      Bytes bytes = punch(rig.state().punch_token);
      bytes.pop_back();
      rig.expect_nothing("a byte less", WAN, bytes);
      bytes.resize(bytes.size() + 2);
      rig.expect_nothing("a byte more", WAN, bytes);
      bytes = punch(rig.state().punch_token);
      bytes[3] = 1;
      rig.expect_nothing("a flag", WAN, bytes);
    }
  }
}

TEST(ClientServersHostile, WhatIsNotForAClientIsNothingEvenFromItsServer) {
  for (const Situation& situation : SITUATIONS) {
    Besieged rig(situation);
    for (const std::uint8_t type : {LUND_RV_REGISTER, LUND_RV_CHALLENGE, LUND_RV_REGISTERED,
                                    LUND_RV_LOOKUP, LUND_RV_PUNCH_NOTIFY, LUND_RV_BIND}) {
      lund_rv_message message = rig.result();
      message.type = type;
      message.target_size = 16;
      rig.expect_nothing_said("a message for others", message);
    }
    for (std::uint8_t type = LUND_RV_ERROR + 1; type <= LUND_RV_LAST; ++type) {
      Bytes bytes = SERVER.say(rig.bound());
      bytes[2] = type;
      rig.expect_nothing("an unassigned type", SERVER.address, bytes);
    }
  }
}

// The server itself may lie: a look-up can't make the client reach for another host's key.
TEST(ClientServersHostile, ALyingServerCannotPassAnotherHostOff) {
  for (const Situation& situation : SITUATIONS) {
    Besieged rig(situation);
    lund_rv_message result = rig.result(0xBAD);
    result.key[7] ^= 0x40;
    const auto before = bytes_of(*rig.client);
    rig.say(result);
    EXPECT_EQ(bytes_of(*rig.client), before);
    EXPECT_THAT(rig.sent, IsEmpty());
    EXPECT_THAT(rig.log, SizeIs(1));
  }
}

TEST(ClientServersHostile, WhatAServerSaidBeforeANewStartIsWorthNothingWhenRepeated) {
  ServerRig rig;
  lund_client_connect(rig.client);
  rig.tick();
  const Bytes result = SERVER.say(rig.result(0xA)), failed = SERVER.say(rig.failure(1));
  rig.say(rig.result(0xA));
  const Bytes bound = SERVER.say(rig.bound(0)), gone = SERVER.say(rig.bound(1));
  const Bytes punch = peer::punch(LUND_RV_PUNCH, rig.state().punch_token, 1, 0);
  rig.say(rig.bound(1));
  rig.tick();
  rig.say(rig.result(0xB));
  rig.tick();
  rig.sent.clear();
  const std::size_t lines = rig.log.size();
  const auto before = bytes_of(*rig.client);
  for (const Bytes& repeated : {result, failed, bound, gone}) rig.receive(SERVER.address, repeated);
  rig.receive(WAN, punch);
  EXPECT_EQ(bytes_of(*rig.client), before);
  EXPECT_THAT(rig.sent, IsEmpty());
  EXPECT_THAT(rig.log, SizeIs(lines));
}
