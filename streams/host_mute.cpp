#include "streams/host_mute.h"

#include <algorithm>

#include "connection/clock.h"
#include "control/log.h"
#include "control/private_file.h"
#include "control/store_platform.h"
#include "control/switches.h"
#include "streams/mute_state.h"

namespace {

constexpr const char* STATE_NAME = "muted-endpoints.txt";
constexpr std::size_t STATE_LIMIT_BYTES = 65'536;
// A client that comes back within it causes no unmute, and so no burst of sound.
constexpr std::uint64_t HOLD_OFF_US = 1'000'000;

}  // namespace

// ---- HostMuteLogic

std::vector<std::string> HostMuteLogic::parse(const std::string& text) {
  std::vector<std::string> ids;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    std::string id = text.substr(begin, end - begin);
    id.erase(id.find_last_not_of(" \t\r") + 1);
    if (!id.empty()) ids.push_back(std::move(id));
    begin = end + 1;
  }
  return ids;
}

std::string HostMuteLogic::format(const std::vector<std::string>& ids) {
  std::string text;
  for (const std::string& id : ids) text += id + "\n";
  return text;
}

void HostMuteLogic::recover(const std::vector<std::string>& ids) {
  for (const std::string& id : ids) {
    const int muted = calls_.is_muted(id);
    if (muted < 0)
      calls_.log("cannot restore " + id + " (left muted by a previous run): device not found");
    // One that isn't muted any more was unmuted by the user.
    if (muted != 1) continue;
    if (calls_.set_mute(id, false))
      calls_.log("unmuted " + id + " (left muted by a previous run that did not exit cleanly)");
    else
      calls_.log("could not unmute " + id);
  }
  calls_.save({});
}

void HostMuteLogic::mute_changed(const std::string& id, bool muted) {
  const auto found = devices_.find(id);
  if (muted || found == devices_.end() || !found->second.we_muted) return;
  found->second.we_muted = false;
  found->second.user_unmuted = true;
  calls_.log(id +
             " was unmuted by the user during the session; not muting it again until the client "
             "reconnects");
}

void HostMuteLogic::settle(bool wanted, const std::string& default_id) {
  clean(wanted, default_id);
  if (wanted && !default_id.empty()) mute(default_id);
  calls_.save(muted_ids());
}

// Lets go of every output that isn't to be muted any more. The user's unmute outlives a change of
// the default output and back, but not the stream.
void HostMuteLogic::clean(bool wanted, const std::string& default_id) {
  for (auto it = devices_.begin(); it != devices_.end();) {
    auto& [id, dev] = *it;
    if (wanted && id == default_id) {
      ++it;
      continue;
    }
    if (dev.we_muted) unmute(id, wanted);
    it = wanted && dev.user_unmuted ? std::next(it) : devices_.erase(it);
  }
}

void HostMuteLogic::unmute(const std::string& id, bool wanted) {
  if (calls_.is_muted(id) != 1) return;
  if (calls_.set_mute(id, false))
    calls_.log("unmuted " + id + (wanted ? " (no longer the default output)" : ""));
  else
    calls_.log("could not unmute " + id);
}

void HostMuteLogic::mute(const std::string& id) {
  Dev& dev = devices_[id];
  if (dev.we_muted || dev.user_unmuted || dev.checked) return;
  dev.checked = true;
  switch (calls_.is_muted(id)) {
    case 0: {
      std::vector<std::string> ids = muted_ids();
      ids.push_back(id);
      calls_.save(ids);
      dev.we_muted = calls_.set_mute(id, true);
      return calls_.log(dev.we_muted ? "muted " + id + " while streaming" : "could not mute " + id);
    }
    case 1:
      return calls_.log(id + " is already muted; leaving it as it is");
    default:
      return;
  }
}

std::vector<std::string> HostMuteLogic::muted_ids() const {
  std::vector<std::string> ids;
  for (const auto& [id, dev] : devices_)
    if (dev.we_muted) ids.push_back(id);
  return ids;
}

std::string HostMuteLogic::status(bool wanted) const {
  const auto any = [this](bool Dev::*flag) {
    return std::ranges::any_of(devices_, [flag](const auto& entry) { return entry.second.*flag; });
  };
  if (any(&Dev::we_muted)) return "This PC's speakers are muted while streaming";
  if (wanted && any(&Dev::user_unmuted)) return "This PC's speakers: unmuted by you";
  return "";
}

// ---- HostMute

HostMute::HostMute(std::unique_ptr<SoundEndpoints> endpoints, std::filesystem::path directory)
    : endpoints_(std::move(endpoints)),
      directory_(std::move(directory)),
      logic_({[this](const std::string& id) { return endpoints_->is_muted(id); },
              [this](const std::string& id, bool muted) { return endpoints_->set_mute(id, muted); },
              [this](const std::vector<std::string>& ids) { save(ids); },
              [](const std::string& line) { hlog("audio: %s", line.c_str()); }}) {}

HostMute::~HostMute() {
  shutdown();
}

void HostMute::init(bool disabled) {
  if (thread_.joinable()) return;
  prepare(disabled);
  thread_ = std::thread([this] { run(); });
}

void HostMute::prepare(bool disabled) {
  const bool setting = load_mute_host(directory_);
  const std::lock_guard lock(mutex_);
  enabled_ = !disabled && setting;
  stopping_ = false;
}

void HostMute::shutdown() {
  {
    const std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.set();
  if (thread_.joinable()) thread_.join();
}

bool HostMute::enabled() {
  const std::lock_guard lock(mutex_);
  return enabled_;
}

void HostMute::set_enabled(bool enabled) {
  if (!save_mute_host(directory_, enabled)) hlog("audio: could not save the setting mute_host");
  {
    const std::lock_guard lock(mutex_);
    enabled_ = enabled;
  }
  wake_.set();
}

void HostMute::set_streaming(bool streaming) {
  {
    const std::lock_guard lock(mutex_);
    if (streaming_ == streaming) return;
    streaming_ = streaming;
  }
  wake_.set();
}

std::string HostMute::status_line() {
  const std::lock_guard lock(mutex_);
  return status_;
}

void HostMute::mute_changed(const std::string& id, bool muted) {
  {
    const std::lock_guard lock(mutex_);
    notifications_.emplace_back(id, muted);
  }
  wake_.set();
}

void HostMute::run() {
  for (bool last = false; !last;) {
    {
      // Read first: what the step then sees is at least as new.
      const std::lock_guard lock(mutex_);
      last = stopping_;
    }
    const std::uint32_t sleep_ms = step();
    if (!last) wake_.wait(sleep_ms);
  }
}

std::uint32_t HostMute::step() {
  bool wanted = false;
  bool stopping = false;
  std::vector<std::pair<std::string, bool>> notifications;
  {
    const std::lock_guard lock(mutex_);
    if (!streaming_ && !stopping_ && logic_.owes_unmute()) {
      const std::uint64_t now_us = lund_now_us();
      if (held_since_us_ == 0) held_since_us_ = now_us;
      const std::uint64_t held_us = now_us - held_since_us_;
      if (held_us < HOLD_OFF_US)
        return static_cast<std::uint32_t>((HOLD_OFF_US - held_us + 999) / 1'000);
    }
    held_since_us_ = 0;
    stopping = stopping_;
    wanted = streaming_ && enabled_ && !stopping;
    notifications.swap(notifications_);
  }
  if (!opened_ && !open(stopping)) return FOREVER_MS;
  for (const auto& [id, muted] : notifications) logic_.mute_changed(id, muted);
  logic_.settle(wanted, wanted ? endpoints_->default_output() : std::string());
  {
    const std::lock_guard lock(mutex_);
    status_ = logic_.status(wanted);
  }
  if (stopping) {
    endpoints_->close();
    opened_ = false;
  }
  return FOREVER_MS;
}

// Where sound can't be had yet, it is tried again whenever something happens.
bool HostMute::open(bool stopping) {
  if (stopping) return false;
  std::string error;
  opened_ = endpoints_->open(this, &error);
  if (!opened_ && !said_unavailable_)
    hlog("audio: %s; \"mute this computer while streaming\" is unavailable", error.c_str());
  said_unavailable_ = !opened_;
  if (opened_) repair();
  return opened_;
}

void HostMute::repair() {
  std::string text;
  if (directory_.empty() || read_private_file(directory_ / STATE_NAME, STATE_LIMIT_BYTES, &text) !=
                                store_platform::Read::Ok)
    return;
  logic_.recover(HostMuteLogic::parse(text));
}

// Whichever way it fails, muting goes on: only a crash would then be noticed.
void HostMute::save(const std::vector<std::string>& ids) const {
  if (directory_.empty()) return;
  const std::filesystem::path path = directory_ / STATE_NAME;
  bool saved = false;
  if (ids.empty()) {
    saved = store_platform::remove_file(path);
  } else {
    store_platform::make_directory(directory_);
    saved = write_mute_state(path, HostMuteLogic::format(ids));
  }
  if (!saved) hlog("audio: could not save which outputs are muted");
}
