// The host: one object that owns the socket, the connection engine, input, clipboard, virtual
// displays and every session, and carries all network traffic and all timing on four threads.
//
//   receive   every datagram: to the engine, then to a session, to a HELLO's decision or to
//   discovery conn      the engine's timers and events, watch over the LAN addresses; 1 to 50 ms
//   tick      liveness of sessions, their own tick, virtual displays; 100 ms
//   setup     one queued HELLO at a time made into a session; all the slow work
//
// Each thread only repeats a step that is a function of its own below, so that tests drive a whole
// host without threads, on a virtual clock.
//
// Views and commands may be called from any thread between `start` and `shutdown`; `shutdown`
// itself once all other callers are done. Capture and audio threads enter through `send_sealed`.
//
// Locks, outermost first: events; then sessions or clients; then a session's own or the socket's.
// The sessions lock is never held while a session is torn down. `host_mutex_` (the engine pointer
// and the resolver against slow changes) stands apart. The engine locks itself; it exists from
// `open` to the end of `shutdown`, so the host's own threads use it without a lock.
#pragma once

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "connection/conn_host.h"
#include "connection/resolver.h"
#include "control/options.h"
#include "control/wake_event.h"
#include "host/hello.h"
#include "host/platform.h"
#include "host/screen_session.h"
#include "host/status.h"
#include "host/udp.h"
#include "streams/input.h"

class HostServer {
 public:
  // To be set before `start`, may stay empty. The first runs after whatever a reader of the status
  // would want to see; the second sees every engine event, with the events lock held; the third
  // gives the answer to a two-way pairing offer.
  std::function<void()> on_status_change;
  std::function<void(const lund_conn_event&)> on_event;
  std::function<int(const lund_pair_back&, const lund_session_info&)> on_pair_back;

  // `display` is the one that screen 0 will stream as far as can be told now. Without `platform`
  // members the host goes without the facility.
  HostServer(const HostOptions& options, const DisplayInfo& display,
             Platform platform = native_platform());
  ~HostServer();
  HostServer(const HostServer&) = delete;
  HostServer& operator=(const HostServer&) = delete;

  bool start(std::string* error);  // once; `error` may be null
  void shutdown();                 // idempotent

  // Views.
  HostStatus status();
  std::vector<PairedDevice> paired_devices();
  std::vector<std::shared_ptr<ScreenSession>> sessions();  // a copy
  std::shared_ptr<ScreenSession> find_session(std::uint32_t session);
  DisplayInfo display();
  std::string key_code() const { return key_code_; }
  const HostOptions& options() const { return options_; }
  lund_pairing_status pairing_status();
  // Each relay server's name with a text on its state; the lines of a report on how this computer
  // can be reached.
  std::vector<std::pair<std::string, std::string>> relay_states();
  std::vector<std::string> internet_status();

  // Commands.
  bool remove_device(const std::string& key);  // 32 bytes
  bool authorize_client(const std::uint8_t* key, const std::string& name);
  enum class Keep { Stored, ThisRun };
  bool set_password(const std::string& password, Keep keep = Keep::Stored);  // takes its time
  void clear_password();
  void pairing_open(std::uint32_t seconds);
  void pairing_close();
  void set_relays(const lund_relay_config& relays);    // storing them is the caller's affair
  void set_audio(const std::string& client, bool on);  // outlives the client's session
  // On a computer without a clipboard it stays off.
  void set_clipboard_enabled(bool on) { clipboard_->set_enabled(on); }
  bool clipboard_enabled() { return clipboard_->enabled(); }

  // The one way a session ends. Whichever of several callers comes first ends it. `notify`: a BYE
  // goes out; `whole_client`: the end of screen 0 takes the client's other screens and setups
  // along; `close_link`: the engine session ends too.
  void end_session(const std::shared_ptr<ScreenSession>& session, const char* reason, bool notify,
                   bool whole_client, bool close_link);

  // What sessions use.
  // Seals and sends one plain packet of at most 1472 bytes; false when it didn't go out. Adds the
  // time spent sealing to `seal_ns`, which may be null.
  bool send_sealed(std::uint32_t session, const std::uint8_t* data, std::size_t size,
                   std::uint64_t* seal_ns);
  InputInjector& injector() { return injector_; }
  HostClipboard& clipboard() { return *clipboard_; }
  bool display_bounds(const std::string& device, DesktopRect* bounds) const;
  void status_changed() const;

  // The threads' steps.
  bool open(std::string* error);  // all of `start` but the threads
  void handle(const std::uint8_t* data, std::size_t size, const Peer& peer);
  std::uint32_t conn_step();  // milliseconds to the next
  void tick_step();
  bool setup_step();  // false when no setup waits
  // The engine announces these addresses from now on; order counts.
  void set_lan_endpoints(const lund_rv_endpoint* list, int count);

 private:
  struct SetupJob {
    std::uint32_t session = 0;
    std::string client;  // 32 bytes
    std::string name;
    std::string code;
    std::string path_label;
    std::int32_t path = 0;  // at the HELLO
    std::vector<std::uint8_t> hello;
    int screen = 0;
    bool cancelled = false;  // sessions_mutex_

    std::string who() const { return client_text(name, code); }
  };
  struct ChosenDisplay;
  using SessionPtr = std::shared_ptr<ScreenSession>;
  using JobPtr = std::shared_ptr<SetupJob>;

  static void conn_send_cb(void* user, const lund_rv_endpoint* to, const std::uint8_t* data,
                           std::size_t size);
  static void conn_log_cb(void* user, const char* line);

  // server.cpp
  bool create_engine();
  void log_identity(int client_count, int relay_count);
  void receive_loop();
  void conn_loop();
  void tick_loop();
  void setup_loop();
  void send_ack(std::uint32_t session, lund_hello_status status, const StreamValues* params);
  void reject(std::uint32_t session, int screen, const std::string& who, const std::string& message,
              bool throttle);
  bool persist_clients();

  // server_receive.cpp
  void handle_opened(const std::uint8_t* data, std::size_t size, const lund_rx_info& rx);
  void drain_events(bool try_only);
  void handle_event(const lund_conn_event& event);
  bool handle_paired(const lund_conn_event& event);
  void handle_path_changed(const lund_conn_event& event);
  void handle_discover(const std::uint8_t* data, std::size_t size, const Peer& peer);
  bool admit_discover(std::uint32_t nonce, const Peer& peer);
  void handle_pair_back(const std::uint8_t* data, std::size_t size, std::uint32_t session);

  // server_hello.cpp
  void handle_hello(const std::uint8_t* data, std::size_t size, const lund_rx_info& rx);
  void refuse_busy(std::uint32_t session, const std::string& who);
  void queue_setup(JobPtr job);
  void cancel_job(const JobPtr& job);

  // server_setup.cpp
  void start_session(const JobPtr& job);
  void start_clipboard(const ScreenSession& session);
  bool choose_display(const SetupJob& job, const lund_hello& hello, ChosenDisplay* chosen);
  std::vector<int> virtual_right_edges();
  bool check_in(const SetupJob& job, const ChosenDisplay& chosen);
  SessionPtr make_session(const SetupJob& job, const lund_hello& hello,
                          const ChosenDisplay& chosen);
  bool open_capture(const SetupJob& job, ScreenSession& session);
  void refuse_capture(const SetupJob& job, const ScreenSession& session);
  bool go_live(const JobPtr& job, const SessionPtr& session);
  void take_qos_locked(const ScreenSession& session);
  void log_started(const SetupJob& job, const lund_hello& hello, const ScreenSession& session,
                   std::uint64_t since_us) const;
  int count_encoder(const std::string& encoder);
  void release_lease(const ScreenSession& session);
  std::vector<SessionPtr> take_out_locked(const SessionPtr& session, bool whole_client);
  void tear_down(ScreenSession& session, const char* reason, bool notify, bool close_link);

  const HostOptions options_;
  const Platform platform_;
  lund_host* host_ = nullptr;
  std::string key_code_;
  std::uint8_t public_key_[LUND_KEY_SIZE] = {};

  std::mutex events_mutex_;   // one drainer at a time
  std::mutex clients_mutex_;  // export and save of the client list
  std::mutex host_mutex_;
  lund_resolver* resolver_ = nullptr;  // host_mutex_

  std::string wanted_display_;
  std::uint32_t host_id_ = 0;
  std::string computer_name_;
  UdpSocket socket_;
  InputInjector injector_;
  std::unique_ptr<HostClipboard> clipboard_;
  std::unique_ptr<VirtualDisplays> virtual_displays_;

  std::mutex sessions_mutex_;
  DisplayInfo display_;                    // that of screen 0
  std::vector<SessionPtr> sessions_list_;  // at most one a screen
  std::vector<JobPtr> jobs_;               // waiting or under way
  std::condition_variable setup_cv_;
  std::uint32_t qos_session_ = 0;  // whose peer's traffic is marked; 0 for none
  std::string audio_owner_;        // the client whose wish `audio_pref_` is
  int audio_pref_ = -1;            // -1 none, 0 off, 1 on

  std::atomic<bool> stopping_{false};
  std::thread receive_thread_, tick_thread_, setup_thread_, conn_thread_;
  WakeEvent tick_wake_{WakeEvent::Reset::Manual};
  WakeEvent conn_wake_{WakeEvent::Reset::Auto};

  // conn thread
  lund_rv_endpoint lan_[LUND_RV_LAN_MAX];
  int lan_count_ = 0;
  std::uint64_t next_lan_scan_us_ = 0;

  // receive thread
  std::uint64_t discover_window_us_ = 0;
  int discover_count_ = 0;
  std::uint32_t discover_nonce_ = 0;
  Peer discover_peer_;
  std::uint64_t discover_us_ = 0;
  // Last log line of a refused HELLO, by screen; the last one for all other screens and for busy.
  std::array<std::uint64_t, SCREENS + 1> hello_log_us_{};
};
