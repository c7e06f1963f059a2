#include "host/server.h"

#include <algorithm>
#include <exception>

#include "connection/clock.h"
#include "connection/wiped.h"
#include "control/keystore.h"
#include "control/log.h"
#include "control/sysinfo.h"
#include "control/text.h"
#include "host/no_facility.h"
#include "host/thread_priority.h"
#include "media/cpu_codec.h"

namespace {

constexpr int DATAGRAM_BUFFER_BYTES = 2048;
constexpr std::size_t PLAIN_MAX = 1472;
constexpr std::size_t SEALED_MAX = PLAIN_MAX + LUND_SEAL_OVERHEAD;
constexpr std::uint64_t LAN_SCAN_PERIOD_US = 5'000'000;
constexpr std::uint32_t TICK_PERIOD_MS = 100;
constexpr std::uint64_t SILENCE_US = 3'000'000;
constexpr std::uint64_t REFUSAL_LOG_SPACING_US = 5'000'000;
constexpr std::uint8_t ACK_HEVC = 1;
constexpr std::uint8_t ACK_H264 = 2;

template <typename Facility>
std::unique_ptr<Facility> make(const std::function<std::unique_ptr<Facility>()>& maker) {
  return maker ? maker() : nullptr;
}

template <typename Absent, typename Facility>
std::unique_ptr<Facility> make_or(const std::function<std::unique_ptr<Facility>()>& maker) {
  std::unique_ptr<Facility> made = make(maker);
  if (!made) made = std::make_unique<Absent>();
  return made;
}

std::string address_list(const lund_rv_endpoint* list, int count, const char* none) {
  std::string text;
  for (int i = 0; i < count; ++i) text += (i == 0 ? "" : ", ") + addr_string(list[i]);
  return count == 0 ? none : text;
}

}  // namespace

HostServer::HostServer(const HostOptions& options, const DisplayInfo& display, Platform platform)
    : options_(options),
      platform_(std::move(platform)),
      injector_(make_or<NoInput>(platform_.make_input)),
      clipboard_(make_or<NoClipboard>(platform_.make_clipboard)),
      virtual_displays_(make_or<NoVirtualDisplays>(platform_.make_virtual_displays)),
      display_(display) {
  virtual_displays_->enabled = virtual_display_mode(options_.virtual_display);
  host_id_ = load_or_create_host_id();
  computer_name_ = computer_name_utf8();
  injector_.set_mac_keys(options_.mac_keys);
  if (!options_.display.empty())
    wanted_display_ = display.device.empty() ? options_.display : display.device;
}

HostServer::~HostServer() {
  shutdown();
}

// ---- Start and end

bool HostServer::start(std::string* error) {
  if (!open(error)) return false;
  receive_thread_ = std::thread(&HostServer::receive_loop, this);
  tick_thread_ = std::thread(&HostServer::tick_loop, this);
  setup_thread_ = std::thread(&HostServer::setup_loop, this);
  conn_thread_ = std::thread(&HostServer::conn_loop, this);
  return true;
}

bool HostServer::open(std::string* error) {
  // The port comes first: nothing else may exist beside another host on it.
  if (!socket_.open(options_.port, error)) return false;
  const bool created = create_engine();
  lund_wipe_stack();  // it has loaded all that the store holds
  if (!created) {
    if (error) *error = "the connection layer could not start";
    socket_.close();
    return false;
  }
  const std::string driver = virtual_displays_->probe().describe();
  hlog("virtual display driver: %s%s", driver.c_str(),
       virtual_displays_->enabled == VIRTUAL_DISPLAY_OFF ? " (not used: --virtual-display off)"
                                                         : "");
  return true;
}

bool HostServer::create_engine() {
  lund_host_config config;
  config.identity = keystore::load_or_create_identity(nullptr);
  config.name = computer_name_.c_str();
  config.relays = keystore::load_relays();
  config.lan_count = lund_net_local_endpoints(config.lan_endpoints, LUND_RV_LAN_MAX, options_.port);
  config.user = this;
  config.send = conn_send_cb;
  config.log = conn_log_cb;
  const lund_client_list clients = keystore::load_clients();
  const Wiped password_blob(keystore::load_password_blob());

  key_code_ = code_of(config.identity.public_key);
  std::copy_n(config.identity.public_key, LUND_KEY_SIZE, public_key_);

  host_ = lund_host_create(&config, &clients, password_blob.value.c_str());
  if (host_ && lund_cpu::close_initial_pairing(options_.machine_mode))
    lund_host_pairing_close(host_);
  if (host_) resolver_ = lund_resolver_start_host(host_, &config.relays);
  const int relay_count = config.relays.count;
  if (!host_) return false;

  lan_count_ = config.lan_count;
  std::copy_n(config.lan_endpoints, lan_count_, lan_);
  next_lan_scan_us_ = lund_now_us() + LAN_SCAN_PERIOD_US;
  log_identity(clients.count, relay_count);
  return true;
}

void HostServer::log_identity(int client_count, int relay_count) {
  const lund_pairing_status pairing = pairing_status();
  hlog(
      "identity %s; %d paired device%s; pairing password %s; pairing %s; %d rendezvous server%s%s; "
      "LAN %s",
      key_code_.c_str(), client_count, plural(client_count),
      pairing.has_password ? "set" : "not set",
      pairing.open ? "open (no paired device yet)" : "closed", relay_count, plural(relay_count),
      relay_count == 0 ? " (none set: LAN / direct only)" : "",
      address_list(lan_, lan_count_, "-").c_str());
}

void HostServer::shutdown() {
  if (stopping_.exchange(true)) return;
  {
    std::scoped_lock lock(sessions_mutex_);
    for (const JobPtr& job : jobs_) job->cancelled = true;
    jobs_.clear();
  }
  setup_cv_.notify_all();
  if (setup_thread_.joinable()) setup_thread_.join();
  // No session can come into being any more. The main screen goes last, so that it takes none
  // along.
  for (const SessionPtr& session : sessions())
    if (session->setup.screen != 0) end_session(session, "host shutting down", true, false, true);
  for (const SessionPtr& session : sessions())
    end_session(session, "host shutting down", true, false, true);
  tick_wake_.set();
  conn_wake_.set();
  socket_.close();
  for (std::thread* thread : {&receive_thread_, &tick_thread_, &conn_thread_})
    if (thread->joinable()) thread->join();
  virtual_displays_->restore_now();
  std::scoped_lock lock(host_mutex_);
  lund_resolver_stop(resolver_);
  resolver_ = nullptr;
  lund_host_destroy(host_);
  host_ = nullptr;
}

// ---- Threads

void HostServer::receive_loop() {
  raise_receive_priority();
  std::uint8_t buffer[DATAGRAM_BUFFER_BYTES] = {};
  while (!stopping_) {
    Peer peer;
    const int size = socket_.recv(buffer, sizeof buffer, &peer);
    if (size >= 0) {
      handle(buffer, static_cast<std::size_t>(size), peer);
      continue;
    }
    if (stopping_ || !socket_.is_open()) return;
    const int error = socket_.last_error();
    if (UdpSocket::interrupted(error)) continue;
    hlog("recv failed (%s)", UdpSocket::error_text(error).c_str());
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

void HostServer::conn_loop() {
  while (!stopping_) conn_wake_.wait(conn_step());
}

std::uint32_t HostServer::conn_step() {
  constexpr std::uint64_t LONGEST_US = 50'000, SHORTEST_US = 1'000;
  const std::uint64_t wait_us = lund_host_tick(host_);
  drain_events(false);
  const std::uint64_t now = lund_now_us();
  if (now >= next_lan_scan_us_) {
    next_lan_scan_us_ = now + LAN_SCAN_PERIOD_US;
    lund_rv_endpoint list[LUND_RV_LAN_MAX];
    const int count = lund_net_local_endpoints(list, LUND_RV_LAN_MAX, options_.port);
    set_lan_endpoints(list, count);
  }
  return static_cast<std::uint32_t>(std::clamp(wait_us, SHORTEST_US, LONGEST_US) / 1'000);
}

void HostServer::set_lan_endpoints(const lund_rv_endpoint* list, int count) {
  if (std::equal(list, list + count, lan_, lan_ + lan_count_, lund_rv_endpoint_equal)) return;
  hlog("LAN addresses changed: %s", address_list(list, count, "none").c_str());
  std::copy_n(list, count, lan_);
  lan_count_ = count;
  lund_host_set_lan_endpoints(host_, list, count);
}

void HostServer::tick_loop() {
  for (;;) {
    tick_wake_.wait(TICK_PERIOD_MS);
    if (stopping_) return;
    tick_step();
  }
}

void HostServer::tick_step() {
  const std::uint64_t now = lund_now_us();
  for (const SessionPtr& session : sessions()) {
    if (session->incompatible)
      end_session(session, "capture/encoder incompatible; fresh session required", true, true,
                  true);
    else if (now > session->last_heard_us + SILENCE_US)
      end_session(session, "client silent for 3 s", true, true, true);
    else
      session->tick(now);
  }
  virtual_displays_->tick();
}

void HostServer::setup_loop() {
  const auto waits = [](const JobPtr& job) { return !job->cancelled; };
  for (;;) {
    {
      std::unique_lock lock(sessions_mutex_);
      setup_cv_.wait(lock, [&] { return stopping_ || std::ranges::any_of(jobs_, waits); });
      if (stopping_) return;
    }
    setup_step();
  }
}

bool HostServer::setup_step() {
  JobPtr job;
  {
    std::scoped_lock lock(sessions_mutex_);
    const auto waiting = std::ranges::find(jobs_, false, &SetupJob::cancelled);
    if (waiting == jobs_.end()) return false;
    job = *waiting;
  }
  start_session(job);
  std::scoped_lock lock(sessions_mutex_);
  std::erase(jobs_, job);
  return true;
}

// ---- Views on the sessions

std::vector<std::shared_ptr<ScreenSession>> HostServer::sessions() {
  std::scoped_lock lock(sessions_mutex_);
  return sessions_list_;
}

std::shared_ptr<ScreenSession> HostServer::find_session(std::uint32_t session) {
  std::scoped_lock lock(sessions_mutex_);
  for (const SessionPtr& candidate : sessions_list_)
    if (candidate->setup.session == session) return candidate;
  return nullptr;
}

DisplayInfo HostServer::display() {
  std::scoped_lock lock(sessions_mutex_);
  return display_;
}

bool HostServer::display_bounds(const std::string& device, DesktopRect* bounds) const {
  return platform_.display_bounds && platform_.display_bounds(device, bounds);
}

void HostServer::status_changed() const {
  if (on_status_change) on_status_change();
}

// ---- Sending

bool HostServer::send_sealed(std::uint32_t session, const std::uint8_t* data, std::size_t size,
                             std::uint64_t* seal_ns) {
  if (!host_ || size > PLAIN_MAX) return false;
  std::uint8_t sealed[SEALED_MAX];
  lund_rv_endpoint peer;
  const std::uint64_t before_ns = seal_ns ? lund_now_ns() : 0;
  const std::size_t sealed_size =
      lund_host_seal(host_, session, data, size, sealed, sizeof sealed, &peer);
  if (seal_ns) *seal_ns += lund_now_ns() - before_ns;
  return sealed_size != 0 && peer.family == 4 && socket_.send(sealed, sealed_size, peer);
}

void HostServer::conn_send_cb(void* user, const lund_rv_endpoint* to, const std::uint8_t* data,
                              std::size_t size) {
  if (to->family == 4) static_cast<HostServer*>(user)->socket_.send(data, size, *to);
}

// A pairing PIN must not reach the machine's log.
void HostServer::conn_log_cb(void* user, const char* line) {
  const std::string_view text = line;
  const bool machine = static_cast<HostServer*>(user)->options_.machine_mode;
  if (machine && (text.find("PIN") != text.npos || text.find("pin") != text.npos)) return;
  hlog("conn: %s", line);
}

void HostServer::send_ack(std::uint32_t session, lund_hello_status status,
                          const StreamValues* params) {
  lund_hello_ack ack;
  ack.status = status;
  if (params) {
    ack.codec = params->hevc ? ACK_HEVC : ACK_H264;
    ack.width = static_cast<std::uint16_t>(params->width);
    ack.height = static_cast<std::uint16_t>(params->height);
    ack.fps = static_cast<std::uint16_t>(params->fps);
    ack.max_datagram = static_cast<std::uint16_t>(params->payload);
    ack.bitrate_kbps = static_cast<std::uint32_t>(params->bitrate_kbps);
  }
  const lund_packet_header header{0, 0, session};
  std::uint8_t packet[64];
  send_sealed(session, packet, lund_encode_hello_ack(packet, sizeof packet, &header, &ack),
              nullptr);
}

void HostServer::reject(std::uint32_t session, int screen, const std::string& who,
                        const std::string& message, bool throttle) {
  send_ack(session, LUND_HELLO_REFUSED, nullptr);
  if (throttle) {
    const std::uint64_t now = lund_now_us();
    std::uint64_t& last = hello_log_us_[static_cast<std::size_t>(std::clamp(screen, 0, SCREENS))];
    if (now < last + REFUSAL_LOG_SPACING_US) return;
    last = now;
  }
  hlog("HELLO for screen %d from %s rejected (status %u, no such screen): %s", screen, who.c_str(),
       LUND_HELLO_REFUSED, message.c_str());
}

bool HostServer::persist_clients() {
  if (!host_) return false;
  std::scoped_lock lock(clients_mutex_);
  lund_client_list clients;
  lund_host_export_clients(host_, &clients);
  return keystore::save_clients(clients);
}
