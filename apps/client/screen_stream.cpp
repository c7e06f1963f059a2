#include "apps/client/screen_stream.h"

#include <algorithm>
#include <cstring>

#include "connection/clock.h"
#include "connection/conn_client.h"

namespace {

constexpr std::uint64_t SILENCE_TIMEOUT_US = 5'000'000;
constexpr std::uint64_t HELLO_REPEAT_US = 500'000;
constexpr std::uint64_t PING_PERIOD_US = 200'000;
// The host takes one request in 100 ms; the answer needs a frame and a round trip.
constexpr std::uint64_t KEYFRAME_REPEAT_US = 150'000;
// A frame whose shards stopped coming this long ago won't be complete any more.
constexpr std::uint64_t STALLED_FRAME_US = 100'000;
constexpr std::uint64_t MAX_FRAME_BYTES = 16 * 1024 * 1024;
// A wish for a bit rate isn't acknowledged; so many losses in a row are rare enough.
constexpr int BITRATE_TELLINGS = 3;
constexpr std::uint64_t BITRATE_REPEAT_US = 200'000;
// Events come from other threads at any time: their repeats are looked after so often.
constexpr std::uint64_t STREAM_PERIOD_US = 10'000;

}  // namespace

ScreenStream::ScreenStream(HostLink& link, SessionSinks& sinks, const lund_hello& wish,
                           std::filesystem::path recording)
    : link_(link),
      sinks_(sinks),
      wish_(wish),
      recording_(std::move(recording)),
      input_([this](const std::uint8_t* plain, std::size_t size) {
        link_.send(session_id_, plain, size);
      }) {
  decoder_.on_picture = [this](const DecodedPicture& picture, const FrameTimes& times) {
    sinks_.picture(screen(), picture, times);
  };
}

ScreenStream::~ScreenStream() {
  decoder_.finish();
}

void ScreenStream::end(SessionEnd how, std::string text) {
  if (!ending_) ending_ = StreamEnding{how, std::move(text)};
}

FrameCounts ScreenStream::frame_counts() {
  std::lock_guard lock(decoder_.statistics_mutex());
  return {decoder_.statistics().decoded(), decoder_.statistics().lost()};
}

double ScreenStream::rtt_us() {
  std::lock_guard lock(decoder_.statistics_mutex());
  return decoder_.statistics().rtt_us();
}

std::optional<std::int64_t> ScreenStream::clock_offset_us() const {
  return session_.clock.us();
}

std::size_t ScreenStream::payload() const {
  lund_client_status status;
  lund_client_status_get(link_.engine(), &status);
  return static_cast<std::size_t>(std::clamp<int>(status.payload, 0, ack_.max_datagram));
}

// ---- A session's beginning and end

void ScreenStream::attach(std::uint32_t session, bool loopback, bool with_sound,
                          std::uint64_t now_us) {
  session_ = {};
  session_id_ = session;
  session_.clock = ClockOffset(loopback);
  session_.hello = wish_;
  session_.hello.audio = with_sound;
  if (const std::uint32_t kbps = wanted_kbps_) session_.hello.bitrate_kbps = kbps;
  session_.told_kbps = session_.hello.bitrate_kbps;
  session_.tellings = BITRATE_TELLINGS;
  tell_clock();
  last_heard_us_ = now_us;
}

void ScreenStream::leave() {
  send_simple(LUND_PKT_BYE);
}

void ScreenStream::forget() {
  input_.end();
  leave();  // should it hear us, it needn't wait for our silence
  session_id_ = 0;
  reassembler_.reset();
  gate_ = {};
  cursor_.forget_position();
  ending_.reset();
  session_ = {};
}

void ScreenStream::on_hello_ack(const std::uint8_t* packet, std::size_t size) {
  lund_hello_ack ack;
  if (lund_decode_hello_ack(packet, size, &ack) != 0 || reassembler_) return;
  if (ack.status == LUND_HELLO_BUSY)
    return end(SessionEnd::Busy, "the host is busy: another device is connected");
  if (ack.status != LUND_HELLO_ACCEPTED)
    return end(SessionEnd::Refused, "the host refused: no such screen, or no display");
  if (!start_decoder(ack)) return;
  ack_ = ack;
  wish_.codec = ack.codec;  // should it have to be asked again
  reassembler_.reset(lund_reassembler_create(MAX_FRAME_BYTES));
  if (!reassembler_) return end(SessionEnd::LocalFailure, "out of memory");
  const std::uint64_t now = lund_now_us();
  last_second_us_ = now;
  session_.last_keyframe_request_us = now;  // the first frame is a keyframe unasked
  input_.begin(payload());
  sinks_.granted(screen(), ack);
  sinks_.screen_state(screen(), ScreenState::Streaming, {});
  send_ping(now);
}

// At the first grant, or for another codec than before, which a recording can't take.
bool ScreenStream::start_decoder(const lund_hello_ack& ack) {
  if (ever_granted() && ack.codec == ack_.codec) return true;
  if (ever_granted() && !recording_.empty()) {
    end(SessionEnd::LocalFailure, "the host has changed the codec in mid-recording");
    return false;
  }
  decoder_.finish();
  const bool hevc = ack.codec == 1;
  std::string error;
  if (!decoder_.start(
          hevc,
          recording_.empty() ? recording_ : recording_ / (hevc ? "stream.h265" : "stream.h264"),
          &error)) {
    end(SessionEnd::LocalFailure, error);
    return false;
  }
  return true;
}

// ---- Timers

std::uint64_t ScreenStream::step(std::uint64_t now_us) {
  if (session_id_ == 0 || ending_) return InputSender::NOTHING_DUE;
  if (!streaming()) {
    if (now_us - session_.last_hello_us > HELLO_REPEAT_US) send_hello(now_us);
    return InputSender::NOTHING_DUE;
  }
  if (now_us - last_heard_us_ > SILENCE_TIMEOUT_US)
    end(SessionEnd::NoAnswer, "the host has fallen silent");
  if (now_us - session_.last_ping_us >= PING_PERIOD_US) send_ping(now_us);
  if (now_us - last_second_us_ >= 1'000'000) finish_second(now_us);
  tell_bitrate(now_us);
  ask_for_keyframe(now_us);
  const auto rtt = static_cast<std::uint64_t>(rtt_us());
  if (const std::uint32_t shape = cursor_.request_due(now_us, rtt))
    send_value(LUND_PKT_CURSOR_REQUEST, shape);
  return std::min(input_.tick(), STREAM_PERIOD_US);
}

void ScreenStream::ask_for_keyframe(std::uint64_t now) {
  if (decoder_.take_damage()) gate_.damaged();
  const bool behind =
      static_cast<std::int32_t>(session_.newest_shard_frame - session_.last_popped_frame) > 0;
  if (behind && now - session_.newest_shard_us > STALLED_FRAME_US) gate_.damaged();
  if (gate_.needs_keyframe() && now - session_.last_keyframe_request_us >= KEYFRAME_REPEAT_US) {
    session_.last_keyframe_request_us = now;
    send_simple(LUND_PKT_KEYFRAME_REQUEST);
  }
}

void ScreenStream::tell_bitrate(std::uint64_t now) {
  const std::uint32_t wanted = wanted_kbps_;
  if (wanted != session_.told_kbps && wanted != 0) {
    session_.told_kbps = wanted;
    session_.tellings = 0;
    session_.told_us = 0;
  }
  if (session_.tellings >= BITRATE_TELLINGS || now - session_.told_us < BITRATE_REPEAT_US) return;
  ++session_.tellings;
  session_.told_us = now;
  send_value(LUND_PKT_BITRATE_REQUEST, session_.told_kbps);
}

void ScreenStream::send_hello(std::uint64_t now) {
  std::uint8_t packet[64];
  const lund_packet_header header;
  const std::size_t size = lund_encode_hello(packet, sizeof packet, &header, &session_.hello);
  if (session_.first_hello_us == 0) session_.first_hello_us = now;
  session_.last_hello_us = now;
  link_.send(session_id_, packet, size);
}

void ScreenStream::send_simple(std::uint8_t type) {
  std::uint8_t packet[LUND_HEADER_SIZE];
  const lund_packet_header header{type, 0, 0};
  if (session_id_ != 0)
    link_.send(session_id_, packet, lund_encode_header(packet, sizeof packet, &header));
}

void ScreenStream::send_value(std::uint8_t type, std::uint32_t value) {
  std::uint8_t packet[16];
  const lund_packet_header header{type, 0, 0};
  link_.send(session_id_, packet, lund_encode_u32_packet(packet, sizeof packet, &header, value));
}

void ScreenStream::send_ping(std::uint64_t now) {
  std::uint8_t packet[32];
  const lund_packet_header header;
  const lund_ping ping{++session_.ping_seq, now, 0};
  session_.last_ping_us = now;
  link_.send(session_id_, packet, lund_encode_ping(packet, sizeof packet, &header, &ping));
}

void ScreenStream::finish_second(std::uint64_t now) {
  const double lasted = static_cast<double>(now - last_second_us_) / 1e6;
  last_second_us_ = now;
  StreamStatistics::Second second;
  double rtt = 0;
  {
    std::lock_guard lock(decoder_.statistics_mutex());
    second = decoder_.statistics().finish_second(lasted);
    rtt = decoder_.statistics().rtt_us();
  }
  sinks_.second(screen(), second);
  std::uint8_t packet[64];
  const lund_packet_header header;
  const lund_client_stats stats{
      second.received,         second.lost,      0,
      second.recovered_frames, second.decode_us, static_cast<std::uint32_t>(rtt)};
  link_.send(session_id_, packet, lund_encode_client_stats(packet, sizeof packet, &header, &stats));
}

// ---- Packets

void ScreenStream::take(const std::uint8_t* packet, std::size_t size, const PacketOrder& order) {
  const std::uint64_t now = lund_now_us();
  last_heard_us_ = now;
  switch (packet[2]) {
    case LUND_PKT_HELLO_ACK:
      return on_hello_ack(packet, size);
    case LUND_PKT_PONG:
      return on_pong(packet, size);
    case LUND_PKT_VIDEO_SHARD:
      return on_shard(packet, size);
    case LUND_PKT_INPUT_ACK:
      return input_.acknowledged(packet, size);
    case LUND_PKT_CURSOR_POS:
      if (cursor_.take_position(packet, size, order, now))
        sinks_.pointer(screen(), cursor_.position());
      return;
    case LUND_PKT_CURSOR_SHAPE:
      if (const PointerImage* image = cursor_.take_shape(packet, size, now))
        sinks_.pointer_image(screen(), *image);
      return;
    case LUND_PKT_BYE:
      return end(SessionEnd::HostEnded,
                 streaming() ? "the host ended the stream" : "the host could not start the stream");
    default:
      return;
  }
}

void ScreenStream::tell_clock() {
  if (const auto offset = session_.clock.us()) decoder_.set_clock_offset(*offset);
}

void ScreenStream::on_pong(const std::uint8_t* packet, std::size_t size) {
  lund_ping pong;
  const std::uint64_t now = lund_now_us();
  if (lund_decode_ping(packet, size, &pong) != 0 || pong.client_time_us > now) return;
  const std::uint64_t rtt = now - pong.client_time_us;
  session_.clock.measured(pong.client_time_us, pong.host_time_us, rtt);
  tell_clock();
  input_.rtt_measured(rtt);
  std::lock_guard lock(decoder_.statistics_mutex());
  decoder_.statistics().rtt_measured(static_cast<double>(rtt));
}

void ScreenStream::on_shard(const std::uint8_t* packet, std::size_t size) {
  if (!streaming()) return;
  lund_video_shard shard;
  if (lund_decode_video_shard(packet, size, &shard, nullptr, nullptr) != 0) return;
  const bool first = session_.newest_shard_us == 0;
  if (first || static_cast<std::int32_t>(shard.frame_id - session_.newest_shard_frame) > 0) {
    if (first) session_.last_popped_frame = shard.frame_id - 1;
    session_.newest_shard_frame = shard.frame_id;
    session_.newest_shard_us = lund_now_us();
  }
  if (lund_reassembler_push(reassembler_.get(), packet, size) == 1) take_frames();
}

void ScreenStream::take_frames() {
  lund_reassembled_frame frame;
  std::uint32_t skipped = 0;
  while (lund_reassembler_pop(reassembler_.get(), &frame, &skipped) == 1) {
    const std::uint64_t now = lund_now_us();
    session_.last_popped_frame = frame.frame_id;
    if (session_.first_frame_us == 0) session_.first_frame_us = now;
    queue_frame(frame, skipped, now);
  }
}

void ScreenStream::queue_frame(const lund_reassembled_frame& frame, std::uint32_t skipped,
                               std::uint64_t now) {
  const bool keyframe = frame.flags == 1;
  QueuedFrame* slot = nullptr;
  const bool passes = gate_.pass(keyframe, skipped);
  if (passes && !(slot = decoder_.acquire())) gate_.damaged();  // the decoder can't keep up
  if (skipped > 0 || !slot) {
    std::lock_guard lock(decoder_.statistics_mutex());
    decoder_.statistics().frames_lost(skipped);
    if (!slot) decoder_.statistics().frame_withheld();
  }
  if (!slot) return;
  slot->bytes.resize(std::max(slot->bytes.size(), frame.size + VideoDecoder::PADDING_BYTES));
  std::memcpy(slot->bytes.data(), frame.data, frame.size);
  std::memset(slot->bytes.data() + frame.size, 0, VideoDecoder::PADDING_BYTES);
  slot->size = frame.size;
  slot->keyframe = keyframe;
  slot->recovered = frame.recovered;
  slot->capture_us = frame.capture_time_us - static_cast<std::uint64_t>(decoder_.clock_offset());
  slot->encode_us = frame.encode_time_us;
  slot->complete_us = now;
  decoder_.submit();
}
