// How the rest of the system looks at a host, and what it may change about it.
#include "host/status.h"

#include <algorithm>
#include <cstring>

#include "connection/clock.h"
#include "connection/wiped.h"
#include "control/keystore.h"
#include "control/log.h"
#include "control/text.h"
#include "host/server.h"

namespace {

const std::uint8_t* key_bytes(const std::string& key) {
  return reinterpret_cast<const std::uint8_t*>(key.data());
}

ScreenStatus screen_status(const ScreenSession& session) {
  const SessionSetup& setup = session.setup;
  const StreamValues stream = session.stream();
  ScreenStatus screen = session.live();
  screen.screen = setup.screen;
  screen.session = setup.session;
  screen.device = setup.display.device;
  screen.is_virtual = setup.virtual_lease;
  screen.width = stream.width;
  screen.height = stream.height;
  screen.fps = stream.fps;
  screen.bitrate_kbps = stream.bitrate_kbps;
  screen.encoder = session.capture->encoder_name();
  screen.backend = session.capture->capture_backend();
  return screen;
}

}  // namespace

// ---- Views

HostStatus HostServer::status() {
  HostStatus status;
  std::vector<SessionPtr> running;
  {
    std::scoped_lock lock(sessions_mutex_);
    running = sessions_list_;
    status.pending = static_cast<std::uint32_t>(jobs_.size());
  }
  for (const SessionPtr& session : running) {
    ScreenStatus screen = screen_status(*session);
    lund_session_info info;
    if (host_ && lund_host_session_info_get(host_, screen.session, &info) == 0) {
      screen.path = lund_path_name(info.path);
      screen.peer = addr_string(info.peer);
    }
    status.screens.push_back(std::move(screen));
    status.client_name = session->setup.name;
    status.client_code = session->setup.code;
    if (session->setup.screen == 0) {
      status.audio_allowed = session->setup.audio_allowed;
      status.audio_running = session->audio_running();
    }
  }
  std::ranges::stable_sort(status.screens, {}, &ScreenStatus::screen);
  status.active = !status.screens.empty();
  status.virtual_display_line = virtual_displays_->status_line();
  return status;
}

std::vector<PairedDevice> HostServer::paired_devices() {
  std::vector<PairedDevice> devices;
  if (!host_) return devices;
  lund_client_list clients;
  lund_host_export_clients(host_, &clients);
  const std::vector<SessionPtr> running = sessions();
  for (int i = 0; i < clients.count; ++i) {
    const lund_client_entry& entry = clients.entries[i];
    PairedDevice device;
    device.name = entry.name;
    device.code = code_of(entry.key);
    device.key.assign(entry.key, entry.key + LUND_KEY_SIZE);
    device.added_at = entry.added_at;
    device.connected = std::ranges::any_of(
        running, [&](const SessionPtr& session) { return session->setup.client == device.key; });
    devices.push_back(std::move(device));
  }
  return devices;
}

// ---- Who may connect

bool HostServer::remove_device(const std::string& key) {
  constexpr const char* REASON = "device removed from Paired Devices";
  if (!host_ || key.size() != LUND_KEY_SIZE) return false;
  // Side screens first, so that the main screen's end doesn't have to take them along.
  for (const SessionPtr& session : sessions())
    if (session->setup.client == key && session->setup.screen != 0)
      end_session(session, REASON, true, false, true);
  for (const SessionPtr& session : sessions())
    if (session->setup.client == key) end_session(session, REASON, true, true, true);
  if (lund_host_remove_client(host_, key_bytes(key)) != 0) {
    status_changed();
    return false;
  }
  if (!persist_clients() && keystore::hostStoreScope() == keystore::Machine) return false;
  hlog("removed paired device %s", code_of(key_bytes(key)).c_str());
  status_changed();
  return true;
}

bool HostServer::authorize_client(const std::uint8_t* key, const std::string& name) {
  if (!host_ || std::equal(key, key + LUND_KEY_SIZE, public_key_)) return false;
  const bool added = lund_host_add_client(host_, key, name.c_str()) >= 0;
  const bool saved = added && persist_clients();
  const char* outcome = !added  ? "NOT authorized: 32 devices are already paired"
                        : saved ? "may now connect to this PC; saved"
                                : "authorization was not saved";
  hlog("two-way pairing: \"%s\" (%s) %s", name.c_str(), code_of(key).c_str(), outcome);
  status_changed();
  return saved || (added && keystore::hostStoreScope() != keystore::Machine);
}

void HostServer::handle_pair_back(const std::uint8_t* data, std::size_t size,
                                  std::uint32_t session) {
  lund_pair_back offer;
  lund_session_info info;
  if (lund_decode_pair_back(data, size, &offer) != 0 || !host_ ||
      lund_host_session_info_get(host_, session, &info) != 0)
    return;
  const auto answer = static_cast<std::uint8_t>(on_pair_back ? on_pair_back(offer, info) : 0);
  const lund_packet_header header{0, 0, session};
  std::uint8_t packet[17];
  send_sealed(session, packet,
              lund_encode_pair_back_ack(packet, sizeof packet, &header, answer != 0), nullptr);
}

// ---- Pairing

lund_pairing_status HostServer::pairing_status() {
  lund_pairing_status pairing;
  if (host_) lund_host_pairing_status(host_, &pairing);
  return pairing;
}

void HostServer::pairing_open(std::uint32_t seconds) {
  if (host_) lund_host_pairing_open(host_, seconds);
  status_changed();
}

void HostServer::pairing_close() {
  if (host_) lund_host_pairing_close(host_);
  conn_wake_.set();
  status_changed();
}

bool HostServer::set_password(const std::string& password, Keep keep) {
  constexpr std::size_t BLOB_BYTES = 192;
  std::scoped_lock lock(host_mutex_);
  if (!host_ || stopping_) return false;
  Wiped<char[BLOB_BYTES]> blob;
  const std::uint64_t since_us = lund_now_us();
  const bool taken =
      lund_host_set_password(host_, password.c_str(), blob.value, sizeof blob.value) == 0;
  if (taken) {
    hlog("pairing password set (Argon2id %.0f ms)",
         static_cast<double>(lund_now_us() - since_us) / 1e3);
    if (keep == Keep::Stored) keystore::save_password_blob(Wiped(std::string(blob.value)).value);
  } else {
    hlog("setting the pairing password failed (out of memory?)");
  }
  return taken;
}

void HostServer::clear_password() {
  if (host_) lund_host_clear_password(host_);
  keystore::delete_password_blob();
}

// ---- Audio

void HostServer::set_audio(const std::string& client, bool on) {
  {
    std::scoped_lock lock(sessions_mutex_);
    audio_owner_ = client;
    audio_pref_ = on ? 1 : 0;
  }
  for (const SessionPtr& session : sessions()) {
    if (session->setup.screen != 0 || session->setup.client != client) continue;
    if (!session->setup.audio_allowed)
      hlog("AUDIO_CONTROL %d ignored: audio is disabled on this host (--no-audio)", on ? 1 : 0);
    else
      session->audio_on = on;
    return;
  }
}
