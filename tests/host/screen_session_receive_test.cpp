// What a running session's client asks for: sound, bit rate, clipboard, input.
#include <gmock/gmock.h>

#include "connection/byte_order.h"
#include "host/screen_session.h"
#include "tests/support/host_world.h"

using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

namespace {

lund_input_event motion(int dx, int dy) {
  return {LUND_INPUT_MOTION, 0, 0, dx, dy};
}
lund_input_event button(std::uint16_t code, bool down) {
  return {LUND_INPUT_BUTTON, std::uint8_t{down}, code, 0, 0};
}
lund_input_event key(std::uint16_t code, bool down) {
  return {LUND_INPUT_KEY, std::uint8_t{down}, code, 0, 0};
}

class SessionClientTest : public HostWorld {
 protected:
  FakeCapture& capture() { return *platform.captures[0]; }
  FakeAudio& audio() { return *platform.audios[0]; }

  std::uint32_t acknowledged(TestLink& link) {
    const std::vector<peer::bytes> acks = link.receive(LUND_PKT_INPUT_ACK);
    std::uint32_t seq = 0xFFFFFFFF;
    EXPECT_EQ(acks.size(), 1u);
    if (acks.empty() || lund_decode_u32_packet(acks[0].data(), acks[0].size(), &seq) != 0)
      ADD_FAILURE() << "no acknowledgement";
    return seq;
  }
  // What has been played since the last call.
  std::vector<std::string> played() { return platform.input->take(); }
  void audio_control(TestLink& link, bool on) {
    link.send(peer::packet(LUND_PKT_AUDIO_CONTROL, 0, {std::uint8_t{on}}));
  }
};

lund_hello with_audio() {
  lund_hello hello;
  hello.audio = 1;
  return hello;
}

}  // namespace

// ---- Sound

TEST_F(SessionClientTest, SoundStartsWithTheSessionWhenTheHelloAsks) {
  TestLink laptop = stream(with_audio());
  EXPECT_TRUE(audio().running);
  EXPECT_THAT(log(), Not(Contains(HasSubstr("(client request)"))));
  const std::uint8_t opus[] = {1, 2, 3};
  audio().object->on_packet(opus, sizeof opus, 777);
  audio().object->on_packet(opus, sizeof opus, 778);
  const std::vector<peer::bytes> packets = laptop.receive(LUND_PKT_AUDIO);
  ASSERT_EQ(packets.size(), 2u);
  lund_audio_packet packet;
  const std::uint8_t* data = nullptr;
  std::size_t size = 0;
  ASSERT_EQ(lund_decode_audio(packets[0].data(), packets[0].size(), &packet, &data, &size), 0);
  EXPECT_EQ(packet.seq, 1u);
  EXPECT_EQ(packet.timestamp_us, 777u);
  EXPECT_EQ(peer::bytes(data, data + size), peer::bytes({1, 2, 3}));
  laptop.bye();
  EXPECT_FALSE(audio().running);
}

TEST_F(SessionClientTest, AudioControlIsAppliedByTheNextTickAndLogged) {
  TestLink laptop = stream(with_audio());
  int changes = 0;
  host().on_status_change = [&] {
    ++changes;
    host().status();  // a reader may look at once
  };
  audio_control(laptop, false);
  EXPECT_TRUE(audio().running);
  log();
  run_ms(100);
  EXPECT_FALSE(audio().running);
  EXPECT_FALSE(host().status().audio_running);
  EXPECT_EQ(changes, 1);
  EXPECT_THAT(log(), ElementsAre("audio stopped (client request)"));
  audio_control(laptop, true);
  run_ms(100);
  EXPECT_THAT(log(), ElementsAre("audio resumed (client request)"));
  EXPECT_EQ(audio().starts, 2);
}

TEST_F(SessionClientTest, TheFirstSettingOfSoundLogsNothing) {
  TestLink laptop = stream();
  audio_control(laptop, true);
  log();
  run_ms(100);
  EXPECT_TRUE(audio().running);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(SessionClientTest, AudioControlOfScreen1ReachesScreen0) {
  platform.add_display("DP-2", 1920);
  TestLink main = stream();
  TestLink side = stream(hello_for(1));
  audio_control(side, true);
  run_ms(100);
  EXPECT_TRUE(audio().running);
  EXPECT_EQ(platform.audios.size(), 1u);  // the side screen has none
}

TEST_F(SessionClientTest, AudioControlOnAHostWithoutAudioIsIgnoredWithAWord) {
  options.audio = false;
  TestLink laptop = stream(with_audio());
  log();
  audio_control(laptop, true);
  EXPECT_THAT(log(),
              ElementsAre("AUDIO_CONTROL 1 ignored: audio is disabled on this host (--no-audio)"));
  EXPECT_THAT(platform.audios, IsEmpty());
  EXPECT_FALSE(host().status().audio_allowed);
}

TEST_F(SessionClientTest, AComputerWithoutSoundAllowsNone) {
  platform.has_audio = false;
  TestLink laptop = stream(with_audio());
  EXPECT_FALSE(session(laptop)->setup.audio_allowed);
  EXPECT_THAT(log(), Contains(HasSubstr("audio off")));
}

TEST_F(SessionClientTest, AWishForSoundOutlivesTheSession) {
  TestLink first = stream();
  audio_control(first, true);
  TestLink again = stream();  // replaces; its HELLO doesn't ask for sound
  EXPECT_TRUE(platform.audios[1]->running);
  EXPECT_FALSE(session(again)->setup.audio_requested);
  audio_control(again, false);
  TestLink third = stream(with_audio());
  EXPECT_FALSE(platform.audios[2]->running);
  EXPECT_TRUE(session(third)->setup.audio_requested);
}

TEST_F(SessionClientTest, AWishForSoundEndsWithTheClientsBye) {
  TestLink first = stream();
  audio_control(first, true);
  first.bye();
  stream();
  EXPECT_FALSE(platform.audios[1]->running);
}

// ---- The client's packets

TEST_F(SessionClientTest, APingIsAnsweredWithTheHostsTime) {
  TestLink laptop = stream();
  laptop.ping();
  const std::vector<peer::bytes> packets = laptop.receive();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0][2], LUND_PKT_PONG);
  lund_ping pong;
  ASSERT_EQ(lund_decode_ping(packets[0].data(), packets[0].size(), &pong), 0);
  EXPECT_EQ(pong.seq, 1u);
  EXPECT_EQ(pong.client_time_us, 42u);
  EXPECT_EQ(pong.host_time_us, lund_now_us());
}

TEST_F(SessionClientTest, ABitrateRequestIsBroughtIntoRange) {
  TestLink laptop = stream();
  log();
  for (const std::uint32_t kbps : {0u, 8'000u, 1'000'000u})
    laptop.u32(LUND_PKT_BITRATE_REQUEST, kbps);
  EXPECT_THAT(capture().bitrates, ElementsAre(500, 8'000, 500'000));
  EXPECT_THAT(log(), ElementsAre("bitrate -> 500 kbps (client request)",
                                 "bitrate -> 8000 kbps (client request)",
                                 "bitrate -> 500000 kbps (client request)"));
  EXPECT_EQ(host().status().screens[0].bitrate_kbps, 500'000);
}

TEST_F(SessionClientTest, PacketsThatDoNotDecodeAreDropped) {
  TestLink laptop = stream();
  platform.input->calls.clear();
  log();
  for (const std::uint8_t type :
       {LUND_PKT_PING, LUND_PKT_CLIENT_STATS, LUND_PKT_BITRATE_REQUEST, LUND_PKT_AUDIO_CONTROL,
        LUND_PKT_CURSOR_REQUEST, LUND_PKT_MOUSE_ABS})
    laptop.send(peer::packet(type));
  EXPECT_THAT(laptop.receive(), IsEmpty());
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_THAT(platform.input->calls, IsEmpty());
}

TEST_F(SessionClientTest, ClipboardPacketsReachTheClipboard) {
  TestLink laptop = stream();
  laptop.send(peer::packet(LUND_PKT_CLIPBOARD, 0, peer::bytes(13)));
  laptop.send(peer::packet(LUND_PKT_CLIPBOARD_ACK, 0, peer::bytes(6)));
  EXPECT_THAT(platform.clipboard->calls, ElementsAre("start 1376", "receive 21", "receive 14"));
}

// ---- Input

TEST_F(SessionClientTest, EachKindOfInputIsPlayed) {
  TestLink laptop = stream();
  played();
  laptop.input(1, {motion(-3, 4),
                   button(2, true),
                   {LUND_INPUT_WHEEL, 0, 0, 120, -240},
                   key(0x05, true),
                   key(0x05, false),
                   key(0x06, true),
                   {LUND_INPUT_RELEASE_ALL, 0, 0, 0, 0},
                   {200, 1, 1, 1, 1},  // of no kind; uses up its number
                   button(3, true),
                   button(3, false)});
  EXPECT_THAT(played(), ElementsAre("rel -3 4", "button 2 down", "wheel -240", "hwheel 120",
                                    "key 5 down", "key 5 up", "key 6 down", "key 6 up",
                                    "button 2 up", "button 3 down", "button 3 up"));
  EXPECT_EQ(acknowledged(laptop), 10u);
}

TEST_F(SessionClientTest, ControlIsTheGuiKeyAsTheOptionSays) {
  for (const bool mac_keys : {true, false}) {
    drop_host();
    options.mac_keys = mac_keys;
    TestLink laptop = stream();
    laptop.input(1, {key(0xE0, true)});
    EXPECT_THAT(played(), ElementsAre(mac_keys ? "key 227 down" : "key 224 down"));
    laptop.bye();
    played();
  }
}

TEST_F(SessionClientTest, AClientThatFallsSilentLeavesNothingPressed) {
  TestLink laptop = stream();
  laptop.input(1, {key(0xE1, true), key(4, true), button(1, true)});
  played();
  run_ms(3'000);
  EXPECT_THAT(played(), IsEmpty());
  run_ms(100);
  EXPECT_THAT(played(), ElementsAre("key 4 up", "key 225 up", "button 1 up"));
}

TEST_F(SessionClientTest, ABatchPlaysOnlyWhatIsNewAndNothingBehindAGap) {
  TestLink laptop = stream();
  laptop.input(1, std::vector<lund_input_event>(6, key(4, true)));
  EXPECT_EQ(acknowledged(laptop), 6u);
  played();
  laptop.input(9, {key(9, true), key(10, true)});
  EXPECT_EQ(acknowledged(laptop), 6u);
  EXPECT_THAT(played(), IsEmpty());
  laptop.input(5, {key(5, true), key(6, true), key(7, true), key(8, true)});
  EXPECT_EQ(acknowledged(laptop), 8u);
  EXPECT_THAT(played(), ElementsAre("key 7 down", "key 8 down"));
}

TEST_F(SessionClientTest, ABatchThatDoesNotDecodeIsAcknowledgedWithTheOldSequence) {
  TestLink laptop = stream();
  laptop.input(1, {key(4, true), key(4, false)});
  EXPECT_EQ(acknowledged(laptop), 2u);
  played();
  laptop.send(peer::packet(LUND_PKT_INPUT, 0, {3, 0, 0, 0, 5, LUND_INPUT_KEY, 1}));
  EXPECT_EQ(acknowledged(laptop), 2u);
  EXPECT_THAT(played(), IsEmpty());
}

TEST_F(SessionClientTest, InputSequencesDoNotWrap) {
  TestLink laptop = stream();
  played();
  laptop.input(0, {key(4, true)});
  EXPECT_EQ(acknowledged(laptop), 0u);
  EXPECT_THAT(played(), IsEmpty());
}

TEST_F(SessionClientTest, AnOldMousePositionIsDropped) {
  TestLink laptop = stream();
  played();
  const auto mouse = [&](std::uint32_t seq, int x) {
    laptop.mouse_abs(seq, static_cast<std::uint16_t>(x), 7);
  };
  constexpr int PIXEL = 65'535 / 1'919;  // of the screen's 1920 across
  mouse(5, 50 * PIXEL);
  mouse(4, 40 * PIXEL);
  mouse(5, 51 * PIXEL);
  mouse(6, 60 * PIXEL);
  EXPECT_THAT(played(), ElementsAre("move 50,0", "move 60,0"));
  EXPECT_THAT(laptop.receive(), IsEmpty());
}

TEST_F(SessionClientTest, WithoutAnInputFacilityEventsAreStillAcknowledged) {
  platform.has_input = false;
  TestLink laptop = stream();
  laptop.input(1, {key(4, true), motion(1, 1)});
  EXPECT_EQ(acknowledged(laptop), 2u);
}

TEST_F(SessionClientTest, InputFollowsAMonitorThatMoves) {
  lund_hello hello;
  hello.width = 960;
  hello.height = 540;
  TestLink laptop = stream(hello);
  run_ms(100);  // the first look
  played();
  log();
  platform.displays[0].left = -1280;
  platform.displays[0].right = 0;
  platform.displays[0].bottom = 720;
  run_ms(400);
  EXPECT_THAT(log(), IsEmpty());
  run_ms(100);
  EXPECT_THAT(log(), Contains("monitor DP-1 moved to (-1280,0) 1280x720; input follows"));
  laptop.input(1, {motion(6, 3)});  // each of the stream's pixels is 4/3 of the monitor's now
  laptop.mouse_abs(1, 0, 0xFFFF);
  EXPECT_THAT(played(), ElementsAre("rel 8 4", "move -1280,719"));
  platform.displays[0].right = -1280;  // a width of nothing is no place
  log();
  laptop.ping();
  run_ms(600);
  EXPECT_THAT(log(), Not(Contains(HasSubstr("moved"))));
}
