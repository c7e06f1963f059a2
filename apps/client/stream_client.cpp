#include "apps/client/stream_client.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "connection/noise.h"
#include "media/video_transport.h"

namespace {

constexpr std::uint64_t CONNECT_TIMEOUT_US = 10'000'000;
// A host that ends each new stream at once isn't asked more often than this.
constexpr std::uint64_t RECONNECT_PERIOD_US = 1'000'000;
constexpr std::uint64_t SILENCE_TIMEOUT_US = 5'000'000;
constexpr std::uint64_t HELLO_REPEAT_US = 500'000;
constexpr std::uint64_t PING_PERIOD_US = 200'000;
// The host takes one request in 100 ms; the answer needs a frame and a round trip.
constexpr std::uint64_t KEYFRAME_REPEAT_US = 150'000;
// A frame whose shards stopped coming this long ago won't be complete any more.
constexpr std::uint64_t STALLED_FRAME_US = 100'000;
constexpr std::uint64_t MAX_FRAME_BYTES = 16 * 1024 * 1024;

}  // namespace

StreamClient::StreamClient(HostLink& link, const StreamRequest& request)
    : link_(link), request_(request) {}

StreamClient::~StreamClient() {
  decoder_.finish();
  lund_reassembler_destroy(reassembler_);
}

double StreamClient::seconds() const {
  return first_frame_us_ == 0 ? 0.0 : static_cast<double>(lund_now_us() - first_frame_us_) / 1e6;
}

void StreamClient::end(StreamEnd how, std::string text) {
  if (ended_) return;
  ended_ = true;
  how_ = how;
  text_ = std::move(text);
}

FrameCounts StreamClient::frame_counts() {
  std::lock_guard lock(decoder_.statistics_mutex());
  return {decoder_.statistics().decoded(), decoder_.statistics().lost()};
}

StreamEnd StreamClient::run(std::string* text) {
  started_us_ = lund_now_us();
  connect(started_us_);
  link_.run(
      UINT64_MAX, [this](const std::uint8_t* p, std::size_t n) { on_packet(p, n); },
      [this](const lund_conn_event& e) { on_event(e); }, [this] { return step(); });
  // A lost BYE costs the host three seconds of streaming to nobody.
  for (int i = 0; i < 3; ++i) send_simple(LUND_PKT_BYE);
  decoder_.finish();
  if (decoder_.recording_failed())
    end(StreamEnd::LocalFailure, "the recording could not be written: is the disk full?");
  *text = text_;
  return how_;
}

void StreamClient::connect(std::uint64_t now) {
  attempt_us_ = now;
  if (lund_client_connect(link_.engine()) != 0)
    end(StreamEnd::LocalFailure, "the host's key is not known");
}

void StreamClient::forget_stream() {
  send_simple(LUND_PKT_BYE);  // should it hear us, it needn't wait for our silence
  lund_client_session_close(link_.engine(), 0);
  lund_reassembler_destroy(reassembler_);
  reassembler_ = nullptr;
  gate_ = {};
  obstacles_.clear();
  session_ = {};
}

bool StreamClient::may_come_back() const {
  return request_.reconnect && first_frame_us_ != 0 &&
         (how_ == StreamEnd::NoAnswer || how_ == StreamEnd::HostEnded);
}

void StreamClient::break_off(std::uint64_t now) {
  if (broken_off_.empty()) {
    broken_off_ = text_;
    broken_off_us_ = last_heard_us_;
    std::printf("%s: connecting again\n", text_.c_str());
    std::fflush(stdout);
  }
  forget_stream();
  ended_ = false;
  how_ = StreamEnd::Done;
  text_.clear();
  if (now - attempt_us_ >= RECONNECT_PERIOD_US)
    connect(now);
  else
    attempt_us_ = 0;
}

bool StreamClient::time_is_over() const {
  return request_.seconds > 0 && first_frame_us_ != 0 && seconds() >= request_.seconds;
}

void StreamClient::note_path(const lund_conn_event& event) {
  const double at_s = static_cast<double>(lund_now_us() - started_us_) / 1e6;
  const std::string line = paths_.begin(event, at_s, frame_counts());
  if (line.empty()) return;
  std::printf("%s\n", line.c_str());
  std::fflush(stdout);
}

void StreamClient::on_event(const lund_conn_event& event) {
  const std::uint64_t now = lund_now_us();
  obstacles_.note(event, now);
  if (event.type == LUND_EV_CLIENT_SESSION_UP) {
    session_.up = true;
    loopback_ = event.addr.family == 4 && event.addr.address[0] == 127;
    last_heard_us_ = now;
  }
  if (event.type == LUND_EV_CLIENT_SESSION_UP || event.type == LUND_EV_PATH_CHANGED)
    note_path(event);
}

bool StreamClient::step() {
  const std::uint64_t now = lund_now_us();
  if (ended_ && !may_come_back()) return true;
  if (request_.stop && *request_.stop) {
    ended_ = true;
    how_ = StreamEnd::Done;
    return true;
  }
  if (ended_) break_off(now);
  if (!reassembler_) return step_connecting(now);

  if (now - last_heard_us_ > SILENCE_TIMEOUT_US)
    end(StreamEnd::NoAnswer, "the host has fallen silent");
  if (now - session_.last_ping_us >= PING_PERIOD_US) send_ping(now);
  if (now - last_second_us_ >= 1'000'000) finish_second(now);

  if (decoder_.take_damage()) gate_.damaged();
  const bool behind =
      static_cast<std::int32_t>(session_.newest_shard_frame - session_.last_popped_frame) > 0;
  if (behind && now - session_.newest_shard_us > STALLED_FRAME_US) gate_.damaged();
  if (gate_.needs_keyframe() && now - session_.last_keyframe_request_us >= KEYFRAME_REPEAT_US) {
    session_.last_keyframe_request_us = now;
    send_simple(LUND_PKT_KEYFRAME_REQUEST);
  }
  return (ended_ && !may_come_back()) || time_is_over();
}

bool StreamClient::step_connecting(std::uint64_t now) {
  if (time_is_over()) {
    end(StreamEnd::NoAnswer, broken_off_ + ", and did not come back");
    return true;
  }
  if (attempt_us_ == 0) {
    // The pause after a host that answers and ends.
    if (now - last_heard_us_ >= RECONNECT_PERIOD_US) connect(now);
    return false;
  }
  const auto rejection = session_.up ? std::nullopt : obstacles_.rejected(now);
  if (rejection == LUND_REJECT_BUSY)
    end(StreamEnd::Busy, "the host is busy: another device is connected");
  else if (rejection)
    end(StreamEnd::UnknownDevice, "the host does not know this device: pair first");
  else if (now - attempt_us_ > CONNECT_TIMEOUT_US)
    end(StreamEnd::NoAnswer, session_.up ? "the host did not answer the request for a stream"
                                         : obstacles_.why_unreached("no answer from the host"));
  else if (session_.up && now - session_.last_hello_us > HELLO_REPEAT_US)
    send_hello(now);
  return ended_ && !may_come_back();
}

void StreamClient::send_hello(std::uint64_t now) {
  std::uint8_t packet[64];
  const lund_packet_header header;
  const std::size_t size = lund_encode_hello(packet, sizeof packet, &header, &request_.hello);
  if (session_.first_hello_us == 0) session_.first_hello_us = now;
  session_.last_hello_us = now;
  link_.send(packet, size);
}

void StreamClient::send_simple(std::uint8_t type) {
  std::uint8_t packet[LUND_HEADER_SIZE];
  const lund_packet_header header{type, 0, 0};
  if (session_.up) link_.send(packet, lund_encode_header(packet, sizeof packet, &header));
}

void StreamClient::send_ping(std::uint64_t now) {
  std::uint8_t packet[32];
  const lund_packet_header header;
  const lund_ping ping{++session_.ping_seq, now, 0};
  session_.last_ping_us = now;
  link_.send(packet, lund_encode_ping(packet, sizeof packet, &header, &ping));
}

void StreamClient::finish_second(std::uint64_t now) {
  const double lasted = static_cast<double>(now - last_second_us_) / 1e6;
  last_second_us_ = now;
  StreamStatistics::Second second;
  double rtt_us = 0;
  {
    std::lock_guard lock(decoder_.statistics_mutex());
    second = decoder_.statistics().finish_second(lasted);
    rtt_us = decoder_.statistics().rtt_us();
  }
  std::printf("%s\n", second.line.c_str());
  std::fflush(stdout);
  std::uint8_t packet[64];
  const lund_packet_header header;
  const lund_client_stats stats{
      second.received,         second.lost,      0,
      second.recovered_frames, second.decode_us, static_cast<std::uint32_t>(rtt_us)};
  link_.send(packet, lund_encode_client_stats(packet, sizeof packet, &header, &stats));
}

void StreamClient::on_packet(const std::uint8_t* packet, std::size_t size) {
  last_heard_us_ = lund_now_us();
  switch (packet[2]) {
    case LUND_PKT_HELLO_ACK:
      return on_hello_ack(packet, size);
    case LUND_PKT_PONG:
      return on_pong(packet, size);
    case LUND_PKT_VIDEO_SHARD:
      return on_shard(packet, size);
    case LUND_PKT_BYE:
      return end(StreamEnd::HostEnded, reassembler_ ? "the host ended the stream"
                                                    : "the host could not start the stream");
    default:
      return;  // sound, cursor and clipboard are not asked for
  }
}

void StreamClient::on_hello_ack(const std::uint8_t* packet, std::size_t size) {
  lund_hello_ack ack;
  if (lund_decode_hello_ack(packet, size, &ack) != 0 || reassembler_) return;
  if (ack.status == LUND_HELLO_BUSY)
    return end(StreamEnd::Busy, "the host is busy: another device is connected");
  if (ack.status != LUND_HELLO_ACCEPTED)
    return end(StreamEnd::Refused, "the host refused: no such screen, or no display");
  const bool first = !streamed();
  if (!first && ack.codec != ack_.codec)
    return end(StreamEnd::LocalFailure, "the host has changed the codec in mid-recording");
  ack_ = ack;
  request_.hello.codec = ack.codec;  // should it have to be asked again
  std::string error;
  const auto recording = request_.out.empty()
                             ? request_.out
                             : request_.out / (std::string("stream.") + codec_extension());
  reassembler_ = lund_reassembler_create(MAX_FRAME_BYTES);
  if (!reassembler_ || (first && !decoder_.start(ack.codec == 1, recording, &error)))
    return end(StreamEnd::LocalFailure, reassembler_ ? error : "out of memory");
  const std::uint64_t now = lund_now_us();
  last_second_us_ = now;
  session_.last_keyframe_request_us = now;  // the first frame is a keyframe unasked
  send_ping(now);
}

void StreamClient::on_pong(const std::uint8_t* packet, std::size_t size) {
  lund_ping pong;
  const std::uint64_t now = lund_now_us();
  if (lund_decode_ping(packet, size, &pong) != 0 || pong.client_time_us > now) return;
  const std::uint64_t rtt = now - pong.client_time_us;
  if (!loopback_ && (session_.best_rtt_us == 0 || rtt < session_.best_rtt_us)) {
    // Of all answers the quickest tells most exactly how the two clocks stand.
    session_.best_rtt_us = rtt;
    decoder_.set_clock_offset(static_cast<std::int64_t>(pong.host_time_us) -
                              static_cast<std::int64_t>(pong.client_time_us + rtt / 2));
  }
  std::lock_guard lock(decoder_.statistics_mutex());
  decoder_.statistics().rtt_measured(static_cast<double>(rtt));
}

void StreamClient::on_shard(const std::uint8_t* packet, std::size_t size) {
  if (!reassembler_) return;
  lund_video_shard shard;
  if (lund_decode_video_shard(packet, size, &shard, nullptr, nullptr) != 0) return;
  const bool first = session_.newest_shard_us == 0;
  if (first || static_cast<std::int32_t>(shard.frame_id - session_.newest_shard_frame) > 0) {
    if (first) session_.last_popped_frame = shard.frame_id - 1;
    session_.newest_shard_frame = shard.frame_id;
    session_.newest_shard_us = lund_now_us();
  }
  if (lund_reassembler_push(reassembler_, packet, size) == 1) take_frames();
}

void StreamClient::note_return(std::uint64_t now) {
  const Reconnect back{static_cast<double>(now - started_us_) / 1e6,
                       static_cast<double>(now - broken_off_us_) / 1e3, broken_off_};
  reconnects_.push_back(back);
  broken_off_.clear();
  std::printf("back after %.1f s\n", back.gap_ms / 1000);
  std::fflush(stdout);
}

void StreamClient::take_frames() {
  lund_reassembled_frame frame;
  std::uint32_t skipped = 0;
  while (lund_reassembler_pop(reassembler_, &frame, &skipped) == 1) {
    const std::uint64_t now = lund_now_us();
    const bool keyframe = frame.flags == 1;
    session_.last_popped_frame = frame.frame_id;
    if (first_frame_us_ == 0) {
      first_frame_us_ = now;
      hello_to_first_frame_ms_ = static_cast<double>(now - session_.first_hello_us) / 1000;
    }
    if (!broken_off_.empty()) note_return(now);
    QueuedFrame* slot = nullptr;
    const bool passes = gate_.pass(keyframe, skipped);
    if (passes && !(slot = decoder_.acquire())) gate_.damaged();  // the decoder can't keep up
    if (skipped > 0 || !slot) {
      std::lock_guard lock(decoder_.statistics_mutex());
      decoder_.statistics().frames_lost(skipped);
      if (!slot) decoder_.statistics().frame_withheld();
    }
    if (!slot) continue;
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
}
