#include "host/session_stats.h"

#include <gtest/gtest.h>

namespace {

SessionInterval busy_second() {
  SessionInterval interval;
  interval.frames = 50;
  interval.bytes = 2'500'000;
  interval.encode_sum_us = 150'000;
  interval.encode_max_us = 4'500;
  interval.latency_sum_us = 400'000;
  interval.keys_init = 1;
  interval.keys_requested = 2;
  interval.keys_other = 3;
  interval.key_requests_in = 4;
  interval.packets = 2'400;
  interval.send_errors = 7;
  interval.audio_packets = 100;
  interval.seal_sum_us = 6'000;
  interval.seal_max_us = 311;
  return interval;
}

std::string line(const SessionInterval& interval, AudioLine audio,
                 const lund_client_stats& client = {}, double seconds = 1.0,
                 const std::string& tag = "") {
  return session_line(tag, interval, session_rates(interval, seconds, client), audio, client);
}

}  // namespace

TEST(SessionLine, TellsASecondInFull) {
  lund_client_stats client;
  client.frames_received = 95;
  client.frames_lost = 5;
  client.fec_frames = 8;
  client.decode_us = 2'340;
  client.rtt_us = 1'500;
  SessionInterval interval = busy_second();
  interval.client_stats_valid = true;
  EXPECT_EQ(line(interval, AudioLine::On, client),
            " 50.0 fps  20.00 Mbps enc  3.00/ 4.50 ms cap->pkt  8.00 ms key 6 (init 1, req 2/4 in)"
            "  2400 pkt/s err 7 seal 120/311 us audio 100"
            " | client rtt 1.50 ms loss 5.0% (5 fr, 8 fec) dec 2.34 ms");
}

TEST(SessionLine, RatesAreOverTheTimeThatReallyWentBy) {
  EXPECT_EQ(line(busy_second(), AudioLine::None, {}, 1.25, "screen 2: "),
            "screen 2:  40.0 fps  16.00 Mbps enc  3.00/ 4.50 ms cap->pkt  8.00 ms key 6 (init 1, "
            "req 2/4 in)  1920 pkt/s err 7 seal 120/311 us");
}

TEST(SessionLine, WithoutAFrameShowsZeros) {
  EXPECT_EQ(line({}, AudioLine::Off),
            "  0.0 fps   0.00 Mbps enc  0.00/ 0.00 ms cap->pkt  0.00 ms key 0 (init 0, req 0/0 in)"
            "     0 pkt/s err 0 seal 0/0 us audio off");
}

TEST(SessionLine, AClientThatHasSeenNothingHasLostNothing) {
  SessionInterval interval;
  interval.client_stats_valid = true;
  EXPECT_EQ(session_rates(interval, 1.0, {}).loss_percent, 0.0);
}

TEST(SessionSummary, CountsMegabytesInMillions) {
  SessionTotals totals;
  totals.frames = 1'200;
  totals.bytes = 12'345'678;
  totals.keyframes = 3;
  totals.send_errors = 2;
  EXPECT_EQ(session_summary(totals, 61.26),
            "61.3 s, 1200 frames, 12.3 MB, 3 keyframes, 2 send errors");
}
