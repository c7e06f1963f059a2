// What a session counts, and the log line made of it once a second. Plain values: the session's
// lock guards them.
#pragma once

#include <cstdint>
#include <string>

#include "connection/protocol.h"

// Counted since the last line; replaced by a fresh one when a line is made.
struct SessionInterval {
  std::uint32_t frames = 0;
  std::uint64_t bytes = 0;  // of encoded frames
  std::uint64_t encode_sum_us = 0;
  std::uint64_t latency_sum_us = 0;  // from capture to the frame's last packet
  std::uint32_t encode_max_us = 0;
  std::uint32_t keys_init = 0;  // keyframes, by their cause
  std::uint32_t keys_requested = 0;
  std::uint32_t keys_other = 0;
  std::uint32_t key_requests_in = 0;  // KEYFRAME_REQUEST packets
  std::uint32_t packets = 0;
  std::uint32_t send_errors = 0;
  std::uint32_t audio_packets = 0;
  double seal_sum_us = 0;  // per frame
  double seal_max_us = 0;
  bool client_stats_valid = false;  // the client reported
};

struct SessionTotals {
  std::uint32_t frames = 0;
  std::uint32_t keyframes = 0;
  std::uint32_t send_errors = 0;
  std::uint64_t bytes = 0;
};

// An interval in the units in which people read it.
struct SessionRates {
  double fps = 0;
  double mbps = 0;
  double encode_ms = 0;
  double encode_max_ms = 0;
  double latency_ms = 0;
  double packets_per_second = 0;
  double seal_us = 0;
  double seal_max_us = 0;
  // The client's own report; only with client_stats_valid.
  double rtt_ms = 0;
  double loss_percent = 0;
  double decode_ms = 0;
};

SessionRates session_rates(const SessionInterval& interval, double seconds,
                           const lund_client_stats& client);

enum class AudioLine { None, Off, On };  // None: the screen carries no audio at all

// At most 511 characters.
std::string session_line(const std::string& tag, const SessionInterval& interval,
                         const SessionRates& rates, AudioLine audio,
                         const lund_client_stats& client);

std::string session_summary(const SessionTotals& totals, double seconds);
