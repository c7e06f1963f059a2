// A session's client: what its packets ask for.
#include "connection/clock.h"
#include "control/log.h"
#include "host/screen_session.h"
#include "host/server.h"

void ScreenSession::handle_packet(int type, const std::uint8_t* data, std::size_t size) {
  last_heard_us = lund_now_us();
  if (ended) return;
  started = true;
  switch (type) {
    case LUND_PKT_PING:
      return answer_ping(data, size);
    case LUND_PKT_KEYFRAME_REQUEST: {
      {
        std::scoped_lock lock(stats_mutex_);
        ++interval_.key_requests_in;
      }
      return force_keyframe(true);
    }
    case LUND_PKT_CLIENT_STATS:
      return take_client_stats(data, size);
    case LUND_PKT_BITRATE_REQUEST:
      return change_bitrate(data, size);
    case LUND_PKT_BYE:
      return server_.end_session(shared_from_this(), "BYE from client", false, true, true);
    case LUND_PKT_AUDIO_CONTROL:
      return change_audio(data, size);
    case LUND_PKT_CLIPBOARD:
    case LUND_PKT_CLIPBOARD_ACK:
      return server_.clipboard().receive(data, size);
    case LUND_PKT_CURSOR_REQUEST:
      return resend_shape(data, size);
    case LUND_PKT_INPUT:
      return handle_input(data, size);
    case LUND_PKT_MOUSE_ABS:
      return handle_mouse(data, size);
    default:
      return;
  }
}

void ScreenSession::answer_ping(const std::uint8_t* data, std::size_t size) {
  lund_ping ping;
  if (lund_decode_ping(data, size, &ping) != 0) return;
  ping.host_time_us = lund_now_us();
  const lund_packet_header packet_header = header();
  std::uint8_t packet[64];
  send_counted(packet, lund_encode_pong(packet, sizeof packet, &packet_header, &ping));
}

void ScreenSession::take_client_stats(const std::uint8_t* data, std::size_t size) {
  lund_client_stats stats;
  if (lund_decode_client_stats(data, size, &stats) != 0) return;
  std::scoped_lock lock(stats_mutex_);
  client_stats_ = stats;
  interval_.client_stats_valid = true;
}

void ScreenSession::change_bitrate(const std::uint8_t* data, std::size_t size) {
  std::uint32_t wanted_kbps = 0;
  if (lund_decode_u32_packet(data, size, &wanted_kbps) != 0) return;
  const int kbps = clamp_bitrate(wanted_kbps);
  bitrate_kbps_ = kbps;
  capture->set_bitrate(kbps);
  hlog("%sbitrate -> %d kbps (client request)", tag().c_str(), kbps);
}

void ScreenSession::change_audio(const std::uint8_t* data, std::size_t size) {
  std::uint8_t enabled = 0;
  if (lund_decode_audio_control(data, size, &enabled) != 0) return;
  server_.set_audio(setup.client, enabled != 0);
}

void ScreenSession::resend_shape(const std::uint8_t* data, std::size_t size) {
  std::uint32_t shape_id = 0;
  if (lund_decode_u32_packet(data, size, &shape_id) != 0) return;
  CursorBitmap cursor;
  {
    std::scoped_lock lock(cursor_mutex_);
    const auto cached = cursor_cache_.find(shape_id);
    if (cached == cursor_cache_.end()) return;
    cursor = cached->second;
  }
  send_shape(shape_id, cursor);
}

// Input is reliable and ordered: a batch repeats what hasn't been acknowledged, so each event is
// played exactly once, and a batch that begins behind a gap waits for the client to repeat it.
void ScreenSession::handle_input(const std::uint8_t* data, std::size_t size) {
  lund_input_event events[LUND_INPUT_MAX];
  std::uint32_t first_seq = 0;
  int count = 0;
  if (lund_decode_input(data, size, &first_seq, events, &count) != 0) count = 0;
  for (int i = 0; i < count; ++i) {
    const std::uint32_t seq = first_seq + static_cast<std::uint32_t>(i);
    if (seq <= last_input_seq_) continue;
    if (seq != last_input_seq_ + 1) break;
    apply_input(events[i]);
    last_input_seq_ = seq;
  }
  lund_packet_header packet_header = header();
  packet_header.type = LUND_PKT_INPUT_ACK;
  std::uint8_t packet[16];
  send_counted(packet,
               lund_encode_u32_packet(packet, sizeof packet, &packet_header, last_input_seq_));
}

void ScreenSession::apply_input(const lund_input_event& event) {
  InputInjector& injector = server_.injector();
  switch (event.kind) {
    case LUND_INPUT_MOTION:
      return injector.mouse_rel(input_target(), event.dx, event.dy);
    case LUND_INPUT_BUTTON:
      return injector.mouse_button(event.code, event.down != 0);
    case LUND_INPUT_WHEEL:
      return injector.mouse_wheel(event.dx, event.dy);
    case LUND_INPUT_KEY:
      return injector.key(event.code, event.down != 0);
    case LUND_INPUT_RELEASE_ALL:
      return injector.release_all();
    default:
      return;
  }
}

// Positions are absolute, so a late one is simply old.
void ScreenSession::handle_mouse(const std::uint8_t* data, std::size_t size) {
  lund_mouse_abs mouse;
  if (lund_decode_mouse_abs(data, size, &mouse) != 0) return;
  if (mouse.seq <= last_mouse_seq_) return;
  last_mouse_seq_ = mouse.seq;
  server_.injector().mouse_abs(input_target(), mouse.x, mouse.y);
}
