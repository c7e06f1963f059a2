// One screen of one host as this client receives it: asks for the stream, puts the frames together,
// keeps the session alive, has the frames decoded and recorded, and measures. On demand it comes
// back after a host that has fallen silent: on a new session, where frame numbers start over, into
// the same recording and the same counts. Runs on the caller's thread over a HostLink, with a
// DecodeThread beside it.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "apps/client/decode_thread.h"
#include "apps/client/frame_gate.h"
#include "apps/client/host_link.h"
#include "apps/client/obstacles.h"
#include "apps/client/path_history.h"
#include "connection/protocol.h"

struct StreamRequest {
  lund_hello hello;
  double seconds = 10;        // of stream, from the first frame; 0: until stopped
  std::filesystem::path out;  // where stream.h264 and the rest go; empty: nowhere
  bool reconnect = false;     // go on after the host has fallen silent or has ended the stream
  const std::atomic<bool>* stop = nullptr;
};

// A stream that broke off and came back.
struct Reconnect {
  double at_s;    // when the new stream's first frame was there, from the start
  double gap_ms;  // from the last packet before it broke off to that frame
  std::string reason;
};

enum class StreamEnd {
  Done,           // the time asked for has passed, or the user stopped it
  NoAnswer,       // no handshake, no acknowledgement, or silence in mid-stream
  UnknownDevice,  // the host doesn't know this client
  Busy,
  Refused,       // no such screen, no display
  HostEnded,     // BYE
  LocalFailure,  // decoder or disk
};

class StreamClient {
 public:
  StreamClient(HostLink& link, const StreamRequest& request);
  ~StreamClient();
  StreamClient(const StreamClient&) = delete;
  StreamClient& operator=(const StreamClient&) = delete;

  // Connects, streams, takes leave. `text` says in words how it ended when it isn't Done.
  StreamEnd run(std::string* text);

  const lund_hello_ack& stream() const { return ack_; }
  bool streamed() const { return ack_.width != 0; }  // the host has granted a stream
  double seconds() const;                            // from the first frame to the end
  const PathHistory& paths() const { return paths_; }
  const std::vector<Reconnect>& reconnects() const { return reconnects_; }
  FrameCounts frame_counts();
  double hello_to_first_frame_ms() const { return hello_to_first_frame_ms_; }
  DecodeThread& decoder() { return decoder_; }
  const char* codec_extension() const { return ack_.codec == 1 ? "h265" : "h264"; }

 private:
  void connect(std::uint64_t now);
  void forget_stream();  // everything that belongs to one session
  bool may_come_back() const;
  void break_off(std::uint64_t now);
  bool step_connecting(std::uint64_t now);  // as step
  void note_return(std::uint64_t now);
  void note_path(const lund_conn_event& event);
  bool time_is_over() const;
  void on_event(const lund_conn_event& event);
  void on_packet(const std::uint8_t* packet, std::size_t size);
  void on_hello_ack(const std::uint8_t* packet, std::size_t size);
  void on_pong(const std::uint8_t* packet, std::size_t size);
  void on_shard(const std::uint8_t* packet, std::size_t size);
  void take_frames();
  bool step();  // timers; true when it is time to leave
  void send_hello(std::uint64_t now);
  void send_simple(std::uint8_t type);
  void send_ping(std::uint64_t now);
  void finish_second(std::uint64_t now);
  void end(StreamEnd how, std::string text);

  HostLink& link_;
  StreamRequest request_;
  DecodeThread decoder_;
  FrameGate gate_;
  lund_hello_ack ack_;
  struct lund_reassembler* reassembler_ = nullptr;

  StreamEnd how_ = StreamEnd::Done;
  std::string text_;
  bool ended_ = false;
  Obstacles obstacles_;
  PathHistory paths_;
  std::vector<Reconnect> reconnects_;
  std::string broken_off_;           // why, while it isn't back; empty otherwise
  std::uint64_t broken_off_us_ = 0;  // the last packet before that
  std::uint64_t started_us_ = 0;
  std::uint64_t attempt_us_ = 0;  // when this connection was begun; 0: it is due
  std::uint64_t first_frame_us_ = 0;

  // Of one session, until forget_stream.
  struct Session {
    bool up = false;
    std::uint64_t first_hello_us = 0, last_hello_us = 0;
    std::uint64_t last_ping_us = 0;
    std::uint64_t last_keyframe_request_us = 0;
    std::uint64_t newest_shard_us = 0;  // first shard of the newest frame number seen
    std::uint32_t newest_shard_frame = 0;
    std::uint32_t last_popped_frame = 0;
    std::uint32_t ping_seq = 0;
    std::uint64_t best_rtt_us = 0;
  };
  Session session_;
  bool loopback_ = false;
  std::uint64_t last_heard_us_ = 0;
  std::uint64_t last_second_us_ = 0;
  double hello_to_first_frame_ms_ = 0;
};
