// The reachability check against servers on the loopback network that answer as a test says. Its
// times and nonces are shown without a network, in ../relay_check_test.cpp.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <functional>
#include <thread>

#include "connection/clock.h"
#include "connection/rendezvous.h"
#include "connection/resolver.h"
#include "connection/secure.h"

namespace {

constexpr int LONG_MS = 20'000;  // an answer ends the check long before
constexpr int SHORT_MS = 300;    // for checks that have to run to their end
constexpr std::uint64_t SHORT_US = SHORT_MS * 1'000;
const std::uint8_t KEY[] = {'k', 'e', 'y'};
const std::uint8_t OTHER_KEY[] = {'K', 'e', 'y'};

struct Key {
  explicit Key(const std::uint8_t (&raw)[3]) { lund_rv_net_key(net_key, raw, sizeof raw); }
  std::uint8_t net_key[32];
};

class Socket {
 public:
  explicit Socket(const char* address) {
    EXPECT_EQ(lund_addr_parse_ip(&local_, address), 0);
    handle_ = lund_udp_open(local_.family, &local_, 0);
    local_.port = lund_udp_local_port(handle_);
  }
  ~Socket() { lund_udp_close(handle_); }
  Socket(const Socket&) = delete;
  Socket& operator=(const Socket&) = delete;

  bool is_open() const { return handle_ != LUND_NO_SOCKET; }
  lund_socket handle() const { return handle_; }
  const lund_rv_endpoint& local() const { return local_; }
  void send(const lund_rv_endpoint& to, const lund_rv_message& message, const Key& key) const {
    std::uint8_t datagram[LUND_RV_MESSAGE_MAX];
    const std::size_t size = lund_rv_encode(datagram, sizeof datagram, key.net_key, &message);
    EXPECT_NE(size, 0u);
    EXPECT_EQ(lund_udp_send(handle_, to, datagram, size), 0);
  }

 private:
  lund_socket handle_ = LUND_NO_SOCKET;
  lund_rv_endpoint local_;
};

// Hands each look-up that comes under KEY to a script, on its own thread, until it is gone.
class Server {
 public:
  struct Attempt {
    lund_rv_endpoint from;
    lund_rv_message lookup;
  };
  using Script = std::function<void(const Server& server, const Attempt& attempt)>;

  explicit Server(Script script, const char* address = "127.0.0.1")
      : socket_(address), script_(std::move(script)), thread_(&Server::run, this) {}
  ~Server() { end(); }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  // The server as a relay link would name it.
  lund_relay_server link() const {
    char host[LUND_ADDR_TEXT];
    lund_addr_format(host, sizeof host, socket_.local());
    *std::strrchr(host, ':') = '\0';
    lund_relay_server server;
    EXPECT_EQ(lund_relay_server_set(&server, host, socket_.local().port, KEY, sizeof KEY), 0);
    return server;
  }
  const Socket& socket() const { return socket_; }
  // How many look-ups came; all that has been sent here by now is still answered.
  int end() {
    over_ = true;
    if (thread_.joinable()) thread_.join();
    return lookups_;
  }

 private:
  void run() {
    const lund_socket handle = socket_.handle();
    std::uint8_t datagram[2048];
    for (;;) {
      const bool last_look = over_;
      Attempt attempt;
      if (lund_udp_wait(&handle, 1, last_look ? 0 : 5) != 1) {
        if (last_look) return;
        continue;
      }
      const int size = lund_udp_recv(handle, datagram, sizeof datagram, &attempt.from);
      if (size < 0) continue;
      ASSERT_EQ(
          lund_rv_decode(datagram, static_cast<std::size_t>(size), key_.net_key, &attempt.lookup),
          LUND_OK);
      ++lookups_;
      script_(*this, attempt);
    }
  }

  const Key key_{KEY};
  const Socket socket_;
  const Script script_;
  int lookups_ = 0;  // the thread's until it has ended
  std::atomic<bool> over_{false};
  std::thread thread_;
};

lund_rv_message answer(std::uint8_t type, std::uint32_t nonce, std::uint8_t status = 1) {
  lund_rv_message message;
  message.type = type;
  message.nonce = nonce;
  message.status = status;
  return message;
}

Server::Script answering(std::uint8_t type, std::uint8_t status = 1) {
  return [=](const Server& server, const Server::Attempt& attempt) {
    server.socket().send(attempt.from, answer(type, attempt.lookup.nonce, status), Key(KEY));
  };
}

struct Outcome {
  int result;
  std::uint64_t rtt_us;
  std::uint64_t took_us;
};
Outcome check(const lund_relay_server& server, int timeout_ms) {
  const std::uint64_t start_us = lund_now_us();
  Outcome outcome{-1, 77, 0};
  outcome.result = lund_relay_check(&server, timeout_ms, &outcome.rtt_us);
  outcome.took_us = lund_now_us() - start_us;
  return outcome;
}

void expect_no_answer_until_its_time(const Outcome& outcome) {
  EXPECT_EQ(outcome.result, LUND_RELAY_NO_ANSWER);
  EXPECT_EQ(outcome.rtt_us, 0u);
  EXPECT_GE(outcome.took_us, SHORT_US);
}

}  // namespace

TEST(RelayCheck, AServerThatAnswersTheLookupIsReachable) {
  Server server(answering(LUND_RV_LOOKUP_RESULT));
  const Outcome outcome = check(server.link(), LONG_MS);
  EXPECT_EQ(outcome.result, LUND_RELAY_REACHABLE);
  EXPECT_GT(outcome.rtt_us, 0u);
  EXPECT_LE(outcome.rtt_us, outcome.took_us);
}

TEST(RelayCheck, AnErrorUnderTheKeyProvesItToo) {
  for (const std::uint8_t status : {std::uint8_t{0}, std::uint8_t{4}}) {
    Server server(answering(LUND_RV_ERROR, status));
    EXPECT_EQ(check(server.link(), LONG_MS).result, LUND_RELAY_REACHABLE);
  }
}

TEST(RelayCheck, AServerOnIpv6IsReachable) {
  if (!Socket("::1").is_open()) GTEST_SKIP() << "no IPv6 loopback here";
  Server server(answering(LUND_RV_LOOKUP_RESULT), "::1");
  EXPECT_EQ(check(server.link(), LONG_MS).result, LUND_RELAY_REACHABLE);
}

TEST(RelayCheck, AServerThatAnswersWithAWrongKeyRunsToItsTimeOut) {
  Server server([](const Server& self, const Server::Attempt& attempt) {
    self.socket().send(attempt.from, answer(LUND_RV_LOOKUP_RESULT, attempt.lookup.nonce),
                       Key(OTHER_KEY));
  });
  expect_no_answer_until_its_time(check(server.link(), SHORT_MS));
  EXPECT_GE(server.end(), 1);
}

TEST(RelayCheck, AnAnswerFromAnotherAddressIsIgnored) {
  const Socket other_port("127.0.0.1"), other_address("127.0.0.2");
  Server server([&](const Server&, const Server::Attempt& attempt) {
    for (const Socket* other : {&other_port, &other_address})
      other->send(attempt.from, answer(LUND_RV_LOOKUP_RESULT, attempt.lookup.nonce), Key(KEY));
  });
  expect_no_answer_until_its_time(check(server.link(), SHORT_MS));
  EXPECT_GE(server.end(), 1);
}

// What is ignored doesn't stand in the way of what counts.
TEST(RelayCheck, TheRightAnswerCountsBehindWrongOnes) {
  const Socket other("127.0.0.1");
  Server server([&](const Server& self, const Server::Attempt& attempt) {
    const lund_rv_message right = answer(LUND_RV_LOOKUP_RESULT, attempt.lookup.nonce);
    other.send(attempt.from, right, Key(KEY));
    self.socket().send(attempt.from, right, Key(OTHER_KEY));
    EXPECT_EQ(lund_udp_send(self.socket().handle(), attempt.from, "", 0), 0);
    self.socket().send(attempt.from, right, Key(KEY));
  });
  EXPECT_EQ(check(server.link(), LONG_MS).result, LUND_RELAY_REACHABLE);
}

TEST(RelayCheck, ASendThatFailsIsALocalFailure) {
  lund_relay_server server;
  ASSERT_EQ(lund_relay_server_set(&server, "127.0.0.1", 9877, KEY, sizeof KEY), 0);
  server.port = 0;  // nothing can be sent there
  EXPECT_EQ(check(server, LONG_MS).result, LUND_RELAY_LOCAL_FAILURE);
}
