#include "host/screen_session.h"

#include <algorithm>
#include <cstdio>

#include "connection/clock.h"
#include "control/log.h"
#include "host/server.h"

namespace {

constexpr int MIN_PARITY_SHARDS = 2;
constexpr std::uint64_t KEY_REQUEST_SPACING_US = 100'000;
constexpr std::size_t PACKET_MAX = 1472;
constexpr std::size_t SHAPE_HEADER_BYTES = 28;
constexpr std::size_t SHAPE_CACHE = 64;
constexpr std::uint8_t FRAME_KEYFRAME = 1;

DesktopRect rect_of(const DisplayInfo& display) {
  return {display.left, display.top, display.right, display.bottom};
}

}  // namespace

ScreenSession::ScreenSession(HostServer& server, SessionSetup the_setup,
                             std::unique_ptr<VideoCapture> the_capture,
                             std::unique_ptr<AudioCapture> audio)
    : setup(std::move(the_setup)),
      capture(std::move(the_capture)),
      last_heard_us(lund_now_us()),
      server_(server),
      start_us_(last_heard_us),
      target_(target_on(rect_of(setup.display))),
      packetizer_(lund_packetizer_create(static_cast<std::uint64_t>(setup.stream.payload),
                                         setup.stream.fec_percent, MIN_PARITY_SHARDS)),
      target_payload_(setup.stream.payload),
      current_payload_(setup.stream.payload),
      bitrate_kbps_(setup.stream.bitrate_kbps),
      audio_(std::move(audio)),
      last_stats_us_(start_us_) {
  audio_on = setup.audio_requested;
}

// The capture and audio threads hold no reference: they must be gone before the members are.
ScreenSession::~ScreenSession() {
  stop();
}

bool ScreenSession::init_capture(const std::string& preferred_encoder) {
  if (!capture) return false;
  VideoSettings settings;
  settings.display = setup.display;
  settings.width = setup.stream.width;
  settings.height = setup.stream.height;
  settings.fps = setup.stream.fps;
  settings.bitrate_kbps = setup.stream.bitrate_kbps;
  settings.prefer_hevc = setup.stream.hevc;
  settings.encoder = preferred_encoder;
  if (!capture->init(settings)) return false;
  setup.stream.hevc = capture->encoder_is_hevc();
  return true;
}

// The client may end the session as soon as it has its HELLO_ACK, which is before this: whoever
// comes second to `life_mutex_` sees what the other did.
void ScreenSession::start() {
  {
    std::scoped_lock lock(life_mutex_);
    if (ended) return;
    capture->fatal_sink = [this](const char* reason) {
      hlog("screen %d: video stopped: %s", setup.screen, reason);
      incompatible = true;
    };
    capture->frame_sink = [this](const EncodedVideoFrame& frame) { send_frame(frame); };
    capture->pointer_sink = [this](std::uint16_t x, std::uint16_t y, std::uint8_t visible) {
      pointer(x, y, visible);
    };
    capture->cursor_sink = [this](const CursorBitmap& cursor) { shape(cursor); };
    capture->start();
  }
  apply_audio();
}

void ScreenSession::stop() {
  {
    std::scoped_lock lock(life_mutex_);
    ended = true;
  }
  if (capture) capture->stop();
  std::scoped_lock lock(audio_mutex_);
  if (audio_) audio_->stop();
  audio_running_ = false;
}

std::string ScreenSession::tag() const {
  return setup.screen == 0 ? std::string() : "screen " + std::to_string(setup.screen) + ": ";
}

StreamValues ScreenSession::stream() const {
  StreamValues values = setup.stream;
  values.bitrate_kbps = bitrate_kbps_;
  return values;
}

bool ScreenSession::audio_running() const {
  std::scoped_lock lock(audio_mutex_);
  return audio_running_;
}

ScreenStatus ScreenSession::live() const {
  std::scoped_lock lock(status_mutex_);
  return live_;
}

std::string ScreenSession::summary() const {
  const double seconds = static_cast<double>(lund_now_us() - start_us_) / 1e6;
  std::scoped_lock lock(stats_mutex_);
  return session_summary(totals_, seconds);
}

InputTarget ScreenSession::target_on(const DesktopRect& monitor) const {
  return {monitor.left,   monitor.top,        monitor.right,
          monitor.bottom, setup.stream.width, setup.stream.height};
}

InputTarget ScreenSession::input_target() const {
  std::scoped_lock lock(target_mutex_);
  return target_;
}

void ScreenSession::send_counted(const std::uint8_t* data, std::size_t size) {
  const bool sent = server_.send_sealed(setup.session, data, size, nullptr);
  std::scoped_lock lock(stats_mutex_);
  ++interval_.packets;
  if (sent) return;
  ++interval_.send_errors;
  ++totals_.send_errors;
}

void ScreenSession::send_bye() {
  std::uint8_t packet[LUND_HEADER_SIZE];
  lund_packet_header bye = header();
  bye.type = LUND_PKT_BYE;
  send_counted(packet, lund_encode_header(packet, sizeof packet, &bye));
}

// ---- Video

std::int32_t ScreenSession::video_send_cb(void* self, const std::uint8_t* data,
                                          std::uint64_t size) {
  auto& session = *static_cast<ScreenSession*>(self);
  FrameTally& frame = session.frame_;
  const bool sent = session.server_.send_sealed(session.setup.session, data,
                                                static_cast<std::size_t>(size), &frame.seal_ns);
  ++frame.packets;
  if (!sent) ++frame.failed;
  return sent ? 0 : -1;
}

// All shards of a frame have one size, and what follows must not need a frame of another size: so a
// new size waits for a keyframe.
void ScreenSession::switch_payload() {
  const int payload = target_payload_;
  if (payload == current_payload_) return;
  lund_packetizer* fresh = lund_packetizer_create(static_cast<std::uint64_t>(payload),
                                                  setup.stream.fec_percent, MIN_PARITY_SHARDS);
  if (!fresh) return;
  packetizer_.reset(fresh);
  current_payload_ = payload;
}

void ScreenSession::send_frame(const EncodedVideoFrame& frame) {
  if (ended || frame.size == 0) return;
  const lund_frame_info info{.frame_id = frame_id_++,
                             .flags = frame.keyframe ? FRAME_KEYFRAME : std::uint8_t{0},
                             .capture_time_us = frame.capture_time_us,
                             .encode_time_us = frame.encode_time_us};
  if (frame.keyframe) switch_payload();
  frame_ = {};
  const std::int64_t sent = lund_packetizer_send_frame(packetizer_.get(), setup.session, &info,
                                                       frame.data, frame.size, video_send_cb, this);
  const bool first = !first_frame_sent_;
  count_frame(frame);
  if (sent < 0)
    hlog("%spacketizer rejected frame %u (%zu bytes)", tag().c_str(), info.frame_id,
         static_cast<std::size_t>(frame.size));
  if (first)
    hlog(
        "%sfirst frame: %s %zu bytes, %.1f ms after HELLO, encode %.2f ms (submit->packet %.2f "
        "ms), %u packets sealed in %.1f us",
        tag().c_str(), frame.keyframe ? "keyframe" : "NON-keyframe",
        static_cast<std::size_t>(frame.size), static_cast<double>(lund_now_us() - start_us_) / 1e3,
        frame.encode_time_us / 1e3, frame.submit_to_packet_us / 1e3, frame_.packets,
        static_cast<double>(frame_.seal_ns) / 1e3);
}

// One lock a frame, not one a packet.
void ScreenSession::count_frame(const EncodedVideoFrame& frame) {
  const std::uint64_t now = lund_now_us();
  const double seal_us = static_cast<double>(frame_.seal_ns) / 1e3;
  std::scoped_lock lock(stats_mutex_);
  ++interval_.frames;
  ++totals_.frames;
  interval_.bytes += frame.size;
  totals_.bytes += frame.size;
  interval_.packets += frame_.packets;
  interval_.send_errors += frame_.failed;
  totals_.send_errors += frame_.failed;
  interval_.seal_sum_us += seal_us;
  interval_.seal_max_us = std::max(interval_.seal_max_us, seal_us);
  interval_.encode_sum_us += frame.submit_to_packet_us;
  interval_.encode_max_us = std::max(interval_.encode_max_us, frame.submit_to_packet_us);
  if (frame.capture_time_us < now) interval_.latency_sum_us += now - frame.capture_time_us;
  if (frame.keyframe) {
    ++totals_.keyframes;
    ++(key_is_init_        ? interval_.keys_init
       : key_is_requested_ ? interval_.keys_requested
                           : interval_.keys_other);
    key_is_requested_ = false;
  }
  key_is_init_ = false;
  first_frame_sent_ = true;
}

void ScreenSession::force_keyframe(bool throttle) {
  const std::uint64_t now = lund_now_us();
  if (throttle && now < last_key_request_us_ + KEY_REQUEST_SPACING_US) return;
  last_key_request_us_ = now;
  {
    std::scoped_lock lock(stats_mutex_);
    key_is_requested_ = true;
  }
  capture->request_keyframe();
}

bool ScreenSession::lower_payload(int payload) {
  if (payload >= target_payload_) return false;
  target_payload_ = payload;
  return true;
}

// ---- Cursor

void ScreenSession::shape(const CursorBitmap& cursor) {
  const std::uint32_t hash = cursor_hash(cursor);
  {
    std::scoped_lock lock(cursor_mutex_);
    if (cursor_cache_.try_emplace(hash, cursor).second) cursor_order_.push_back(hash);
    while (cursor_order_.size() > SHAPE_CACHE) {
      cursor_cache_.erase(cursor_order_.front());
      cursor_order_.pop_front();
    }
    if (hash == current_shape_) return;
    current_shape_ = hash;
  }
  send_shape(hash, cursor);
  std::scoped_lock lock(cursor_mutex_);
  if (pos_valid_) send_pos_locked(lund_now_us());
}

void ScreenSession::send_shape(std::uint32_t shape_id, const CursorBitmap& cursor) {
  constexpr int SIDE_MAX = 65'535;  // what the packet can say
  const auto total = static_cast<std::int64_t>(cursor.width) * cursor.height * 4;
  if (ended || cursor.pixels.empty() || static_cast<std::int64_t>(cursor.pixels.size()) != total ||
      cursor.width > SIDE_MAX || cursor.height > SIDE_MAX)
    return;
  lund_cursor_shape record;
  record.shape_id = shape_id;
  record.width = static_cast<std::uint16_t>(cursor.width);
  record.height = static_cast<std::uint16_t>(cursor.height);
  record.hot_x = static_cast<std::uint16_t>(cursor.hot_x);
  record.hot_y = static_cast<std::uint16_t>(cursor.hot_y);
  record.total_size = static_cast<std::uint32_t>(cursor.pixels.size());

  const lund_packet_header packet_header = header();
  const auto room = static_cast<std::size_t>(target_payload_) - SHAPE_HEADER_BYTES;
  std::uint8_t packet[PACKET_MAX];
  for (std::size_t offset = 0; offset < cursor.pixels.size(); offset += room) {
    const std::size_t chunk = std::min(room, cursor.pixels.size() - offset);
    record.offset = static_cast<std::uint32_t>(offset);
    send_counted(packet, lund_encode_cursor_shape(packet, sizeof packet, &packet_header, &record,
                                                  cursor.pixels.data() + offset, chunk));
  }
}

void ScreenSession::pointer(std::uint16_t x, std::uint16_t y, std::uint8_t visible) {
  std::scoped_lock lock(cursor_mutex_);
  pointer_x_ = x;
  pointer_y_ = y;
  pointer_flags_ = visible;
  pos_valid_ = true;
  send_pos_locked(lund_now_us());
}

void ScreenSession::send_pos_locked(std::uint64_t now_us) {
  if (ended) return;
  lund_packet_header packet_header = header();
  packet_header.flags = pointer_flags_;
  const lund_cursor_pos pos{pointer_x_, pointer_y_, current_shape_};
  std::uint8_t packet[32];
  send_counted(packet, lund_encode_cursor_pos(packet, sizeof packet, &packet_header, &pos));
  last_pos_us_ = now_us;
}

// ---- Audio

// Looks at `ended` again under the lock: stop() sets it before it stops the sound.
void ScreenSession::apply_audio() {
  if (ended) return;
  const bool on = audio_on;
  bool changed = false;
  {
    std::scoped_lock lock(audio_mutex_);
    changed = on != audio_running_ && audio_ && !ended;
    if (changed && on) {
      audio_->on_packet = [this](const std::uint8_t* data, std::uint64_t size,
                                 std::uint64_t timestamp_us) {
        send_audio(data, size, timestamp_us);
      };
      audio_->start();
    } else if (changed) {
      audio_->stop();
    }
    if (changed) {
      audio_running_ = on;
      if (audio_applied_) hlog("audio %s (client request)", on ? "resumed" : "stopped");
      audio_applied_ = true;
    }
  }
  if (changed) server_.status_changed();
}

void ScreenSession::send_audio(const std::uint8_t* data, std::uint64_t size,
                               std::uint64_t timestamp_us) {
  if (ended) return;
  const lund_audio_packet audio{++audio_seq_, timestamp_us};
  const lund_packet_header packet_header = header();
  std::uint8_t packet[PACKET_MAX];
  send_counted(packet, lund_encode_audio(packet, sizeof packet, &packet_header, &audio, data,
                                         static_cast<std::size_t>(size)));
  std::scoped_lock lock(stats_mutex_);
  ++interval_.audio_packets;
}
