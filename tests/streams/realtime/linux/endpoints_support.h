// What the tests of outputs share, whichever sound server they are on: what was told, the endpoints
// and the service around them.
#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "streams/host_mute.h"
#include "streams/linux/pulse_endpoints.h"
#include "tests/support/linux/sound_server.h"
#include "tests/support/temporary_store.h"

constexpr std::chrono::seconds ENDPOINTS_DEADLINE{20};

template <class Condition>
bool wait_until(Condition condition) {
  const auto until = std::chrono::steady_clock::now() + ENDPOINTS_DEADLINE;
  while (!condition()) {
    if (std::chrono::steady_clock::now() >= until) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

class Notes final : public SoundEndpoints::Listener {
 public:
  void default_changed() override { add("default"); }
  void mute_changed(const std::string& id, bool muted) override {
    add((muted ? "muted " : "unmuted ") + id);
  }

  bool wait_for(const std::string& note) {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, ENDPOINTS_DEADLINE,
                           [&] { return std::ranges::find(notes_, note) != notes_.end(); });
  }
  std::vector<std::string> take() {
    const std::lock_guard lock(mutex_);
    return std::exchange(notes_, {});
  }

 private:
  void add(const std::string& note) {
    const std::lock_guard lock(mutex_);
    notes_.push_back(note);
    added_.notify_all();
  }
  std::mutex mutex_;
  std::condition_variable added_;
  std::vector<std::string> notes_;
};

inline bool always(std::string_view, std::string_view) {
  return true;
}

// A server, and one owner of its outputs.
template <class Server>
class EndpointsTest : public testing::Test {
 protected:
  EndpointsTest(std::unique_ptr<Server> server, PulseEndpoints::MonitorRule rule)
      : owned_server_(std::move(server)), endpoints_(rule) {}

  void SetUp() override { ASSERT_TRUE(server_.running()); }

  void open() {
    std::string error;
    ASSERT_TRUE(endpoints_.open(&notes_, &error)) << error;
    EXPECT_EQ(endpoints_.default_output(), "out");
    notes_.take();
  }
  // All that was told up to now: the answer to somebody's change of another sink, "mark", comes
  // behind it.
  std::vector<std::string> notes_so_far() {
    const bool muted = !server_.muted("mark");
    endpoints_.is_muted("mark");
    server_.set_mute("mark", muted);
    const std::string mark = muted ? "muted mark" : "unmuted mark";
    EXPECT_TRUE(notes_.wait_for(mark));
    std::vector<std::string> notes = notes_.take();
    std::erase(notes, mark);
    return notes;
  }

  const std::unique_ptr<Server> owned_server_;
  Server& server_ = *owned_server_;
  Notes notes_;
  PulseEndpoints endpoints_;
};

// The service around them, with a log and a state of its own.
class MuteService {
 public:
  void start(PulseEndpoints::MonitorRule rule) {
    mute_ = std::make_unique<HostMute>(std::make_unique<PulseEndpoints>(rule), directory_.path());
    mute_->init(false);
    mute_->init(false);  // a second one does nothing
  }
  bool logged(const std::string& line) const {
    return wait_until([&] {
      const std::vector<std::string> lines = store_.log_lines();
      return std::ranges::find(lines, line) != lines.end();
    });
  }
  std::filesystem::path state_file() const { return directory_ / "muted-endpoints.txt"; }
  bool has_state() const { return std::filesystem::exists(state_file()); }
  HostMute* operator->() const { return mute_.get(); }

 private:
  TemporaryStore store_;
  TempDirectory directory_;
  std::unique_ptr<HostMute> mute_;
};
