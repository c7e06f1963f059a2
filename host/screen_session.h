// One screen that streams to one client over one engine session, from its setup until the server
// ends it. Encoded frames, cursor images and positions come in on the capture thread, sound on the
// audio thread, the client's packets on the receive thread, time on the tick thread; everything
// leaves through HostServer::send_sealed, without a queue. Nothing adapts by itself: the bit rate
// follows the client's requests, and the datagrams only shrink, at a keyframe.
//
// Held by shared_ptr; a thread that works with a session keeps a copy. Only HostServer::end_session
// ends one. Locks: `cursor_mutex_` may be held around a send and so around `stats_mutex_`, which is
// innermost; the others are held alone, `life_mutex_` around `audio_mutex_`. No heap in steady
// state on the capture and audio threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "capture/video.h"
#include "connection/protocol.h"
#include "host/hello.h"
#include "host/session_stats.h"
#include "host/status.h"
#include "media/video_transport.h"
#include "streams/audio.h"
#include "streams/input.h"

class HostServer;

// What the setup decided. Fixed once the session is live.
struct SessionSetup {
  std::uint32_t session = 0;  // the engine's id
  int screen = 0;
  std::string client;  // the 32 bytes of its static key
  std::string name;
  std::string code;
  std::string path_label;  // path and address at the HELLO
  StreamValues stream;
  std::vector<std::uint8_t> hello;  // as it came
  DisplayInfo display;
  bool virtual_lease = false;
  bool audio_allowed = false;    // this screen may carry sound at all
  bool audio_requested = false;  // by the HELLO
};

class ScreenSession : public std::enable_shared_from_this<ScreenSession> {
 public:
  // `capture` may be null, as may `audio` of a screen that carries none.
  ScreenSession(HostServer& server, SessionSetup setup, std::unique_ptr<VideoCapture> capture,
                std::unique_ptr<AudioCapture> audio);
  ~ScreenSession();
  ScreenSession(const ScreenSession&) = delete;
  ScreenSession& operator=(const ScreenSession&) = delete;

  SessionSetup setup;
  const std::unique_ptr<VideoCapture> capture;

  std::atomic<bool> started{false};       // the client has sent a packet since the setup
  std::atomic<bool> ended{false};         // being torn down; nothing goes out any more
  std::atomic<bool> incompatible{false};  // the capture gave up; the tick thread ends the session
  std::atomic<std::uint64_t> last_heard_us;
  std::atomic<bool> audio_on{false};  // wanted; the next tick makes it so

  // Opens the capture with the setup's values, which take over the encoder's codec. Blocks.
  bool init_capture(const std::string& preferred_encoder);

  void start();  // setup thread; nothing when the session has been ended meanwhile
  void stop();   // end_session only; joins the capture and audio threads

  void handle_packet(int type, const std::uint8_t* data, std::size_t size);  // receive thread
  void tick(std::uint64_t now_us);                                           // tick thread

  // Any thread. With `throttle`, at most ten a second.
  void force_keyframe(bool throttle);
  // The size for packets from the next keyframe on; false, and nothing, unless it is smaller.
  bool lower_payload(int payload);
  int target_payload() const { return target_payload_; }
  void send_bye();

  StreamValues stream() const;  // with the bit rate of now
  bool audio_running() const;
  ScreenStatus live() const;    // only the measured values are filled
  std::string summary() const;  // of the whole session
  std::string tag() const;      // how log lines about it begin: "screen 2: ", nothing for screen 0

 private:
  // Capture thread.
  void send_frame(const EncodedVideoFrame& frame);
  void switch_payload();
  void count_frame(const EncodedVideoFrame& frame);
  void shape(const CursorBitmap& cursor);
  void pointer(std::uint16_t x, std::uint16_t y, std::uint8_t visible);
  static std::int32_t video_send_cb(void* self, const std::uint8_t* data, std::uint64_t size);

  // Audio thread.
  void send_audio(const std::uint8_t* data, std::uint64_t size, std::uint64_t timestamp_us);

  // Receive thread.
  void answer_ping(const std::uint8_t* data, std::size_t size);
  void take_client_stats(const std::uint8_t* data, std::size_t size);
  void change_bitrate(const std::uint8_t* data, std::size_t size);
  void change_audio(const std::uint8_t* data, std::size_t size);
  void resend_shape(const std::uint8_t* data, std::size_t size);
  void handle_input(const std::uint8_t* data, std::size_t size);
  void apply_input(const lund_input_event& event);
  void handle_mouse(const std::uint8_t* data, std::size_t size);

  // Tick thread.
  void apply_audio();
  void follow_display(std::uint64_t now_us);
  void repeat_position(std::uint64_t now_us);
  void report(std::uint64_t now_us);

  // A packet outside the video path: sent sealed and counted.
  void send_counted(const std::uint8_t* data, std::size_t size);
  void send_shape(std::uint32_t shape_id, const CursorBitmap& cursor);
  void send_pos_locked(std::uint64_t now_us);  // cursor_mutex_ held
  lund_packet_header header() const { return {0, 0, setup.session}; }
  InputTarget target_on(const DesktopRect& monitor) const;
  InputTarget input_target() const;

  HostServer& server_;
  const std::uint64_t start_us_;

  std::mutex life_mutex_;  // starting against stopping

  mutable std::mutex target_mutex_;
  InputTarget target_;
  std::uint64_t last_bounds_us_ = 0;

  // Capture thread, but for the two atomics.
  struct PacketizerDeleter {
    void operator()(lund_packetizer* p) const { lund_packetizer_destroy(p); }
  };
  std::unique_ptr<lund_packetizer, PacketizerDeleter> packetizer_;
  std::atomic<int> target_payload_;
  int current_payload_;
  struct FrameTally {
    std::uint64_t seal_ns = 0;
    std::uint32_t packets = 0;
    std::uint32_t failed = 0;
  } frame_;
  std::uint32_t frame_id_ = 0;
  std::atomic<int> bitrate_kbps_;

  std::uint32_t audio_seq_ = 0;  // audio thread
  mutable std::mutex audio_mutex_;
  const std::unique_ptr<AudioCapture> audio_;
  bool audio_running_ = false;
  bool audio_applied_ = false;  // set once: later changes get a log line

  mutable std::mutex stats_mutex_;
  SessionInterval interval_;
  SessionTotals totals_;
  bool key_is_init_ = true;  // the next frame is the first
  bool key_is_requested_ = false;
  bool first_frame_sent_ = false;
  lund_client_stats client_stats_;
  std::atomic<std::uint64_t> last_key_request_us_{0};

  std::uint32_t last_input_seq_ = 0;  // receive thread
  std::uint32_t last_mouse_seq_ = 0;

  std::mutex cursor_mutex_;
  std::map<std::uint32_t, CursorBitmap> cursor_cache_;
  std::deque<std::uint32_t> cursor_order_;  // the cache's keys, oldest first
  std::uint32_t current_shape_ = 0;
  std::uint16_t pointer_x_ = 0;
  std::uint16_t pointer_y_ = 0;
  std::uint8_t pointer_flags_ = 0;  // bit 0: visible
  bool pos_valid_ = false;
  std::uint64_t last_pos_us_ = 0;

  std::uint64_t last_stats_us_;
  mutable std::mutex status_mutex_;
  ScreenStatus live_;
};
