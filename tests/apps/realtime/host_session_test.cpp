// A session with a host of the test's own: which packets go out when, on which of the engine's
// sessions, and what comes of the answers.
#include "apps/client/host_session.h"

#include <gtest/gtest.h>

#include <map>

#include "connection/byte_order.h"
#include "tests/support/engine_peer.h"
#include "tests/support/socket_host.h"

namespace {

constexpr std::uint8_t CLIENT = 2, HOST = 1;
using Bytes = std::vector<std::uint8_t>;

// Grants every HELLO and answers every ping, unless told otherwise; writes down what came.
struct Script {
  Bytes operator()(const Bytes& packet) {
    const std::lock_guard lock(mutex);
    const auto session = load_le<std::uint32_t>(&packet[4]);
    log[session].push_back(packet[2]);
    lund_hello hello;
    if (lund_decode_hello(packet.data(), packet.size(), &hello) == 0) {
      hellos.push_back(hello);
      screens[session] = hello.screen;
      return answer_hello ? answer_hello(hello) : granted();
    }
    lund_ping ping;
    if (lund_decode_ping(packet.data(), packet.size(), &ping) == 0) {
      if (answer_ping)
        if (const Bytes answer = answer_ping(screens[session]); !answer.empty()) return answer;
      const lund_packet_header header;
      Bytes pong(28);
      lund_encode_pong(pong.data(), pong.size(), &header, &ping);
      return pong;
    }
    std::uint8_t on = 0;
    if (lund_decode_audio_control(packet.data(), packet.size(), &on) == 0)
      sound_wishes.push_back(on);
    std::uint32_t value = 0;
    if (lund_decode_u32_packet(packet.data(), packet.size(), &value) == 0 &&
        packet[2] == LUND_PKT_BITRATE_REQUEST)
      rates.push_back(value);
    lund_input_event events[LUND_INPUT_MAX];
    std::uint32_t first = 0;
    int count = 0;
    if (lund_decode_input(packet.data(), packet.size(), &first, events, &count) != 0) return {};
    inputs[screens[session]] += count;
    Bytes ack(12);
    const lund_packet_header header{LUND_PKT_INPUT_ACK, 0, 0};
    lund_encode_u32_packet(ack.data(), ack.size(), &header,
                           first + static_cast<std::uint32_t>(count) - 1);
    return ack;
  }
  static Bytes granted(std::uint8_t status = LUND_HELLO_ACCEPTED) {
    const lund_packet_header header;
    lund_hello_ack ack;
    ack.status = status;
    ack.codec = 2;
    ack.width = 640;
    ack.height = 480;
    ack.fps = 60;
    ack.max_datagram = 1'376;
    Bytes packet(22);
    lund_encode_hello_ack(packet.data(), packet.size(), &header, &ack);
    return packet;
  }

  std::mutex mutex;
  std::function<Bytes(const lund_hello&)> answer_hello;
  std::function<Bytes(int screen)> answer_ping;
  std::map<std::uint32_t, std::vector<int>> log;  // types, by session
  std::map<std::uint32_t, int> screens;           // by session
  std::map<int, int> inputs;                      // events, by screen
  std::vector<lund_hello> hellos;
  std::vector<int> sound_wishes;
  std::vector<std::uint32_t> rates;
};

class HostSessionTest : public testing::Test, public SessionSinks {
 protected:
  void open() {
    lund_host_add_client(host_.engine(), peer::keypair_of(CLIENT).public_key, "laptop");
    lund_client_config config;
    config.identity = peer::keypair_of(CLIENT);
    config.has_host_key = 1;
    std::memcpy(config.host_key, peer::keypair_of(HOST).public_key, LUND_KEY_SIZE);
    std::string error;
    ASSERT_TRUE(link_.open(config, &error)) << error;
    ASSERT_EQ(lund_client_add_candidate(link_.engine(), &host_.address(), 0), 0);
  }
  // Runs a session of so many screens until `until` holds; the deadline fails the test.
  SessionEnd run(int screens, std::function<bool()> until, bool with_sound = false) {
    open();
    SessionRequest request;
    for (int i = 0; i < screens; ++i) {
      lund_hello hello;
      hello.screen = static_cast<std::uint8_t>(i);
      hello.audio = i == 0 && with_sound;
      request.screens.push_back(hello);
    }
    session_ = std::make_unique<HostSession>(link_, request, *this);
    until_ = std::move(until);
    deadline_us_ = lund_now_us() + 20'000'000;
    return session_->run(&text_);
  }
  bool step(std::uint64_t now_us) override {
    EXPECT_LT(now_us, deadline_us_);
    if (during_) during_();
    return until_() || now_us >= deadline_us_;
  }
  void state(SessionState state, const std::string&) override { states_.push_back(state); }
  void granted(int screen, const lund_hello_ack& ack) override {
    EXPECT_EQ(ack.width, 640);
    granted_.push_back(screen);
  }
  void screen_state(int screen, ScreenState state, const std::string& text) override {
    if (state == ScreenState::Ended) ended_[screen] = text;
  }

  Script script_;
  SocketHost host_{peer::keypair_of(HOST), "desk",
                   [this](const Bytes& packet) { return script_(packet); }};
  HostLink link_;
  std::unique_ptr<HostSession> session_;
  std::function<bool()> until_;
  std::function<void()> during_;
  std::uint64_t deadline_us_ = 0;
  std::string text_;
  std::vector<SessionState> states_;
  std::vector<int> granted_;
  std::map<int, std::string> ended_;
};

}  // namespace

TEST_F(HostSessionTest, EachScreenHasASessionOfItsOwnTheMainOneFirst) {
  EXPECT_EQ(run(4, [&] { return granted_.size() == 4; }), SessionEnd::Done);
  EXPECT_EQ(granted_[0], 0);
  const std::lock_guard lock(script_.mutex);
  EXPECT_EQ(script_.screens.size(), 4u);
  for (const auto& [session, types] : script_.log) EXPECT_EQ(types[0], LUND_PKT_HELLO);
  EXPECT_EQ(states_,
            (std::vector{SessionState::Connecting, SessionState::Streaming, SessionState::Ended}));
}

TEST_F(HostSessionTest, NothingGoesOutBetweenAHelloAndItsAnswer) {
  int hellos = 0;
  script_.answer_hello = [&](const lund_hello&) {
    return ++hellos < 3 ? Bytes() : Script::granted();
  };
  during_ = [&] {
    session_->input(0).key(4, true);
    session_->input(0).position(1, 1);
    session_->want_sound(true);
    session_->want_bitrate(0, 5'000);
  };
  EXPECT_EQ(run(1, [&] { return session_->main().input().statistics().acknowledged > 0; }),
            SessionEnd::Done);
  const std::lock_guard lock(script_.mutex);
  ASSERT_EQ(script_.log.size(), 1u);
  const auto& types = script_.log.begin()->second;
  ASSERT_GE(types.size(), 4u);
  for (std::size_t i = 0; i < 3; ++i) EXPECT_EQ(types[i], LUND_PKT_HELLO) << i;
}

TEST_F(HostSessionTest, TheMainScreensEndEndsTheOthers) {
  script_.answer_ping = [](int screen) {
    return screen == 0 ? peer::packet(LUND_PKT_BYE) : Bytes();
  };
  EXPECT_EQ(run(2, [] { return false; }), SessionEnd::HostEnded);
  EXPECT_EQ(text_, "the host ended the stream");
  for (const auto& stream : session_->streams()) EXPECT_FALSE(stream->streaming());
}

TEST_F(HostSessionTest, AnotherScreensEndIsItsOwn) {
  script_.answer_ping = [](int screen) {
    return screen == 1 ? peer::packet(LUND_PKT_BYE) : Bytes();
  };
  EXPECT_EQ(run(3, [&] { return granted_.size() == 3 && ended_.contains(1); }), SessionEnd::Done);
  EXPECT_EQ(ended_[1], "the host ended the stream");
  EXPECT_FALSE(ended_.contains(2));
}

TEST_F(HostSessionTest, AScreenThatDoesNotExistIsNotAskedForAgain) {
  script_.answer_hello = [](const lund_hello& hello) {
    return Script::granted(hello.screen == 1 ? LUND_HELLO_REFUSED : LUND_HELLO_ACCEPTED);
  };
  const std::uint64_t began = lund_now_us();
  EXPECT_EQ(run(2, [&] { return ended_.contains(1) && lund_now_us() - began > 2'500'000; }),
            SessionEnd::Done);
  EXPECT_EQ(ended_[1], "the host refused: no such screen, or no display");
  const std::lock_guard lock(script_.mutex);
  EXPECT_EQ(script_.hellos.size(), 2u);
}

TEST_F(HostSessionTest, AScreenIsClosedByItself) {
  during_ = [&] {
    if (granted_.size() == 2) session_->close_screen(1);
  };
  const auto host_knows = [&] {
    const std::lock_guard lock(script_.mutex);
    for (const auto& [session, screen] : script_.screens)
      if (screen == 1 && script_.log[session].back() == LUND_PKT_BYE) return true;
    return false;
  };
  EXPECT_EQ(run(2, [&] { return ended_.contains(1) && host_knows(); }), SessionEnd::Done);
  EXPECT_TRUE(session_->main().ever_granted());
  EXPECT_EQ(ended_.size(), 1u);
}

TEST_F(HostSessionTest, InputGoesToTheScreenItWasMadeOn) {
  during_ = [&] {
    if (granted_.size() != 2 || session_->input(1).statistics().events != 0) return;
    session_->input(1).key(4, true);
    session_->input(1).key(4, false);
    session_->input(0).key(5, true);
  };
  EXPECT_EQ(run(2,
                [&] {
                  return granted_.size() == 2 &&
                         session_->input(1).statistics().acknowledged == 2 &&
                         session_->input(0).statistics().acknowledged == 1;
                }),
            SessionEnd::Done);
  const std::lock_guard lock(script_.mutex);
  EXPECT_GE(script_.inputs[1], 2);
  EXPECT_GE(script_.inputs[0], 1);
}

TEST_F(HostSessionTest, AWishForSoundIsRepeatedThreeTimesWhileNoSoundComes) {
  std::uint64_t enough_us = 0;
  EXPECT_EQ(run(
                1,
                [&] {
                  const std::lock_guard lock(script_.mutex);
                  if (script_.sound_wishes.size() == 3 && enough_us == 0) enough_us = lund_now_us();
                  return enough_us != 0 && lund_now_us() - enough_us > 1'200'000;
                },
                true),
            SessionEnd::Done);
  const std::lock_guard lock(script_.mutex);
  EXPECT_EQ(script_.hellos[0].audio, 1);
  EXPECT_EQ(script_.sound_wishes, (std::vector<int>{1, 1, 1}));
}

TEST_F(HostSessionTest, ABitRateIsToldThreeTimesBecauseNothingAcknowledgesIt) {
  during_ = [&] {
    if (!granted_.empty()) session_->want_bitrate(0, 7'000);
  };
  std::uint64_t enough_us = 0;
  EXPECT_EQ(run(1,
                [&] {
                  const std::lock_guard lock(script_.mutex);
                  if (script_.rates.size() == 3 && enough_us == 0) enough_us = lund_now_us();
                  return enough_us != 0 && lund_now_us() - enough_us > 500'000;
                }),
            SessionEnd::Done);
  const std::lock_guard lock(script_.mutex);
  EXPECT_EQ(script_.rates, (std::vector<std::uint32_t>{7'000, 7'000, 7'000}));
}
