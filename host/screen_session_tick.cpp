// A session's clock: sound, the display's place, the pointer's repeat, and the line of each second.
#include <utility>

#include "connection/clock.h"
#include "control/log.h"
#include "host/screen_session.h"
#include "host/server.h"

namespace {
constexpr std::uint64_t BOUNDS_PERIOD_US = 499'999;
constexpr std::uint64_t POSITION_PERIOD_US = 999'999;
constexpr std::uint64_t STATS_PERIOD_US = 999'999;
}  // namespace

void ScreenSession::tick(std::uint64_t now_us) {
  apply_audio();
  follow_display(now_us);
  repeat_position(now_us);
  report(now_us);
}

// A monitor that the user moves on the desktop takes the pointer along.
void ScreenSession::follow_display(std::uint64_t now_us) {
  if (now_us <= last_bounds_us_ + BOUNDS_PERIOD_US) return;
  last_bounds_us_ = now_us;
  DesktopRect bounds;
  if (!server_.display_bounds(setup.display.device, &bounds) || bounds.right == bounds.left) return;
  const InputTarget moved = target_on(bounds);
  if (moved == input_target()) return;
  hlog("%smonitor %s moved to (%d,%d) %dx%d; input follows", tag().c_str(),
       setup.display.device.c_str(), bounds.left, bounds.top, bounds.right - bounds.left,
       bounds.bottom - bounds.top);
  std::scoped_lock lock(target_mutex_);
  target_ = moved;
}

// CURSOR_POS travels unreliably, and a pointer at rest sends none.
void ScreenSession::repeat_position(std::uint64_t now_us) {
  std::scoped_lock lock(cursor_mutex_);
  if (pos_valid_ && now_us > last_pos_us_ + POSITION_PERIOD_US) send_pos_locked(now_us);
}

void ScreenSession::report(std::uint64_t now_us) {
  if (now_us <= last_stats_us_ + STATS_PERIOD_US) return;
  const double seconds = static_cast<double>(now_us - last_stats_us_) / 1e6;
  last_stats_us_ = now_us;
  SessionInterval interval;
  lund_client_stats client;
  {
    std::scoped_lock lock(stats_mutex_);
    interval = std::exchange(interval_, {});
    client = client_stats_;
  }
  const SessionRates rates = session_rates(interval, seconds, client);
  const AudioLine audio = !setup.audio_allowed ? AudioLine::None
                          : audio_running()    ? AudioLine::On
                                               : AudioLine::Off;
  hlog("%s", session_line(tag(), interval, rates, audio, client).c_str());
  {
    std::scoped_lock lock(status_mutex_);
    live_.measured_fps = rates.fps;
    live_.measured_mbps = rates.mbps;
    live_.encode_ms = rates.encode_ms;
    live_.client_stats_valid = interval.client_stats_valid;
    if (interval.client_stats_valid) {
      live_.rtt_ms = rates.rtt_ms;
      live_.loss_percent = rates.loss_percent;
      live_.decode_ms = rates.decode_ms;
    }
  }
  server_.status_changed();
}
