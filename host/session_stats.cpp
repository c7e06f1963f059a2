#include "host/session_stats.h"

#include <cstdarg>
#include <cstdio>

#include "connection/printf_format.h"

namespace {

// Appends to a line of fixed size; what doesn't fit is cut.
class Line {
 public:
  LUND_PRINTF(2, 3)
  void append(const char* format, ...) {
    if (length_ >= sizeof text_ - 1) return;
    va_list arguments;
    va_start(arguments, format);
    const int written = std::vsnprintf(text_ + length_, sizeof text_ - length_, format, arguments);
    va_end(arguments);
    if (written > 0) length_ += static_cast<std::size_t>(written);
  }
  std::string str() const { return text_; }

 private:
  char text_[512] = {};
  std::size_t length_ = 0;
};

double per_frame(double sum, std::uint32_t frames) {
  return frames == 0 ? 0.0 : sum / frames;
}

double loss_percent(const lund_client_stats& client) {
  const double lost = client.frames_lost;
  const double all = lost + client.frames_received;
  return all == 0 ? 0.0 : lost * 100.0 / all;
}

}  // namespace

SessionRates session_rates(const SessionInterval& interval, double seconds,
                           const lund_client_stats& client) {
  SessionRates rates;
  rates.fps = interval.frames / seconds;
  rates.mbps = static_cast<double>(interval.bytes) * 8.0 / seconds / 1e6;
  rates.encode_ms = per_frame(static_cast<double>(interval.encode_sum_us), interval.frames) / 1e3;
  rates.encode_max_ms = interval.encode_max_us / 1e3;
  rates.latency_ms = per_frame(static_cast<double>(interval.latency_sum_us), interval.frames) / 1e3;
  rates.packets_per_second = interval.packets / seconds;
  rates.seal_us = per_frame(interval.seal_sum_us, interval.frames);
  rates.seal_max_us = interval.seal_max_us;
  if (interval.client_stats_valid) {
    rates.rtt_ms = client.rtt_us / 1e3;
    rates.loss_percent = loss_percent(client);
    rates.decode_ms = client.decode_us / 1e3;
  }
  return rates;
}

std::string session_line(const std::string& tag, const SessionInterval& interval,
                         const SessionRates& rates, AudioLine audio,
                         const lund_client_stats& client) {
  const std::uint32_t keys = interval.keys_init + interval.keys_requested + interval.keys_other;
  Line line;
  line.append(
      "%s%5.1f fps %6.2f Mbps enc %5.2f/%5.2f ms cap->pkt %5.2f ms key %u (init %u, req %u/%u in) "
      "%5.0f pkt/s err %u seal %.0f/%.0f us",
      tag.c_str(), rates.fps, rates.mbps, rates.encode_ms, rates.encode_max_ms, rates.latency_ms,
      keys, interval.keys_init, interval.keys_requested, interval.key_requests_in,
      rates.packets_per_second, interval.send_errors, rates.seal_us, rates.seal_max_us);
  if (audio == AudioLine::On) line.append(" audio %u", interval.audio_packets);
  if (audio == AudioLine::Off) line.append(" audio off");
  if (interval.client_stats_valid)
    line.append(" | client rtt %.2f ms loss %.1f%% (%u fr, %u fec) dec %.2f ms", rates.rtt_ms,
                rates.loss_percent, client.frames_lost, client.fec_frames, rates.decode_ms);
  return line.str();
}

std::string session_summary(const SessionTotals& totals, double seconds) {
  char text[128];
  std::snprintf(text, sizeof text, "%.1f s, %u frames, %.1f MB, %u keyframes, %u send errors",
                seconds, totals.frames, static_cast<double>(totals.bytes) / 1e6, totals.keyframes,
                totals.send_errors);
  return text;
}
