// One screen of a host as this client receives it: asks for its stream on a session of the engine,
// puts the frames together, asks for keyframes, has them decoded and recorded, measures; holds the
// screen's pointer and its input. Outlives the engine's sessions: a stream that comes back goes on
// in the same recording and the same counts, its frame numbers start over.
//
// The network thread's, but for `input` and what is marked; with a DecodeThread beside it.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "apps/client/clock_offset.h"
#include "apps/client/cursor_cache.h"
#include "apps/client/decode_thread.h"
#include "apps/client/frame_gate.h"
#include "apps/client/host_link.h"
#include "apps/client/input_sender.h"
#include "apps/client/path_history.h"
#include "apps/client/session_sinks.h"
#include "media/video_transport.h"

struct StreamEnding {
  SessionEnd how;
  std::string text;  // in words
};

class ScreenStream {
 public:
  // `recording`: a directory, or nothing. The first two outlive the stream.
  ScreenStream(HostLink& link, SessionSinks& sinks, const lund_hello& wish,
               std::filesystem::path recording);
  ~ScreenStream();
  ScreenStream(const ScreenStream&) = delete;
  ScreenStream& operator=(const ScreenStream&) = delete;

  // A session of the engine is up: the stream is asked for, until it is granted or has ended.
  void attach(std::uint32_t session, bool loopback, bool with_sound, std::uint64_t now_us);
  void take(const std::uint8_t* packet, std::size_t size, const PacketOrder& order);
  // Gives the microseconds until it should be called again, at the latest.
  std::uint64_t step(std::uint64_t now_us);
  // Takes leave and forgets what belongs to one session. The engine's is the caller's to close.
  void forget();
  // Decodes what is queued; nothing is decoded after it.
  void finish() { decoder_.finish(); }

  int screen() const { return wish_.screen; }
  std::uint32_t session() const { return session_id_; }  // 0: none
  bool streaming() const { return reassembler_ != nullptr; }
  // Why there is no stream any more; forget clears it.
  const std::optional<StreamEnding>& ending() const { return ending_; }
  void end(SessionEnd how, std::string text);  // the first end counts
  std::uint64_t last_heard_us() const { return last_heard_us_; }
  // When the first frame of this session was complete; 0: it wasn't yet.
  std::uint64_t first_frame_us() const { return session_.first_frame_us; }
  std::uint64_t first_hello_us() const { return session_.first_hello_us; }
  std::size_t payload() const;  // bytes of a packet on the path of now
  // The host's clock less this computer's, once it is known.
  std::optional<std::int64_t> clock_offset_us() const;
  void leave();  // BYE

  const lund_hello_ack& granted() const { return ack_; }  // the last one
  bool ever_granted() const { return ack_.width != 0; }
  FrameCounts frame_counts();
  DecodeThread& decoder() { return decoder_; }
  const CursorCache& cursor() const { return cursor_; }

  InputSender& input() { return input_; }                         // any thread
  void want_bitrate(std::uint32_t kbps) { wanted_kbps_ = kbps; }  // any thread
  double rtt_us();                                                // any thread

 private:
  void on_hello_ack(const std::uint8_t* packet, std::size_t size);
  bool start_decoder(const lund_hello_ack& ack);
  void tell_clock();
  void on_pong(const std::uint8_t* packet, std::size_t size);
  void on_shard(const std::uint8_t* packet, std::size_t size);
  void take_frames();
  void queue_frame(const lund_reassembled_frame& frame, std::uint32_t skipped, std::uint64_t now);
  void send_hello(std::uint64_t now);
  void send_simple(std::uint8_t type);
  void send_ping(std::uint64_t now);
  void send_value(std::uint8_t type, std::uint32_t value);
  void tell_bitrate(std::uint64_t now);
  void ask_for_keyframe(std::uint64_t now);
  void finish_second(std::uint64_t now);

  HostLink& link_;
  SessionSinks& sinks_;
  lund_hello wish_;
  const std::filesystem::path recording_;
  DecodeThread decoder_;
  CursorCache cursor_;
  lund_hello_ack ack_;

  // Of one session, until forget.
  struct ReassemblerDeleter {
    void operator()(lund_reassembler* r) const { lund_reassembler_destroy(r); }
  };
  std::unique_ptr<lund_reassembler, ReassemblerDeleter> reassembler_;
  std::atomic<std::uint32_t> session_id_{0};  // read by whoever sends input
  FrameGate gate_;
  std::optional<StreamEnding> ending_;
  struct Session {
    ClockOffset clock;
    lund_hello hello;  // as it is repeated: the same bytes are the same wish
    std::uint64_t first_hello_us = 0, last_hello_us = 0;
    std::uint64_t first_frame_us = 0;
    std::uint64_t last_ping_us = 0;
    std::uint64_t last_keyframe_request_us = 0;
    std::uint64_t newest_shard_us = 0;  // first shard of the newest frame number seen
    std::uint32_t newest_shard_frame = 0;
    std::uint32_t last_popped_frame = 0;
    std::uint32_t ping_seq = 0;
    std::uint32_t told_kbps = 0;
    int tellings = 0;  // of told_kbps
    std::uint64_t told_us = 0;
  };
  Session session_;
  std::uint64_t last_heard_us_ = 0;
  std::uint64_t last_second_us_ = 0;
  std::atomic<std::uint32_t> wanted_kbps_{0};  // 0: as it was granted

  InputSender input_;
};
