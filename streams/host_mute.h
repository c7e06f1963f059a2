// This computer's speakers are silent while a client streams; the capture of its sound hears
// everything still. `HostMuteLogic` decides, `HostMute` is the service around it.
//
// The default output may change during the stream, the user may unmute by hand, which stands until
// the stream's end, and the process may die with an output muted: which ones are is therefore in
// the file muted-endpoints.txt, one id a line, before they are muted, and the next start repairs
// it.
//
// HostMute: any thread may call it. One mutex guards what the callers, the endpoints' listener and
// the worker share, and is never held across a call of the endpoints. Only the worker, one thread,
// talks to the endpoints and writes the file; it sleeps unless something happens.
#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "control/wake_event.h"
#include "streams/sound_endpoints.h"

class HostMuteLogic {
 public:
  struct Dev {
    bool we_muted = false;      // this program muted it and owes an unmute
    bool user_unmuted = false;  // the user unmuted it during this stream
    bool checked = false;       // this stream has looked at it: there is no second attempt
  };
  struct Calls {
    std::function<int(const std::string& id)> is_muted;  // 1, 0, -1 when it can't be told
    std::function<bool(const std::string& id, bool muted)> set_mute;
    // The ids that this program has muted, or is about to.
    std::function<void(const std::vector<std::string>& ids)> save;
    std::function<void(const std::string& line)> log;
  };

  explicit HostMuteLogic(Calls calls) : calls_(std::move(calls)) {}

  // The state file, both ways.
  static std::vector<std::string> parse(const std::string& text);
  static std::string format(const std::vector<std::string>& ids);

  // What a run that was killed left muted. An id that can't be had now is forgotten.
  void recover(const std::vector<std::string>& ids);

  void mute_changed(const std::string& id, bool muted);  // by somebody else
  // Brings the outputs into line. `wanted`: muting is, and `default_id` is the output that counts,
  // empty when it can't be told.
  void settle(bool wanted, const std::string& default_id);

  bool owes_unmute() const { return !muted_ids().empty(); }
  std::string status(bool wanted) const;
  const std::map<std::string, Dev>& devices() const { return devices_; }

 private:
  std::vector<std::string> muted_ids() const;
  void clean(bool wanted, const std::string& default_id);
  void unmute(const std::string& id, bool wanted);
  void mute(const std::string& id);

  const Calls calls_;
  std::map<std::string, Dev> devices_;
};

class HostMute final : SoundEndpoints::Listener {
 public:
  // The directory is the application's data directory.
  HostMute(std::unique_ptr<SoundEndpoints> endpoints, std::filesystem::path directory);
  ~HostMute() override;
  HostMute(const HostMute&) = delete;
  HostMute& operator=(const HostMute&) = delete;

  // Starts the worker, which first repairs what a killed run left; once until `shutdown`.
  // `disabled`: for this run, whatever the setting.
  void init(bool disabled);
  void shutdown();  // unmutes what was muted; idempotent

  bool enabled();
  void set_enabled(bool enabled);  // for this run and, as a setting, for later ones
  void set_streaming(bool streaming);
  std::string status_line();  // for a person; may be empty

  // The worker's step: does what is due, and returns how long to sleep at most unless woken. After
  // `shutdown` it is the last.
  static constexpr std::uint32_t FOREVER_MS = 0xFFFFFFFF;
  std::uint32_t step();
  void prepare(bool disabled);  // all of `init` but the thread

 private:
  void default_changed() override { wake_.set(); }
  void mute_changed(const std::string& id, bool muted) override;
  void run();
  bool open(bool stopping);
  void repair();
  void save(const std::vector<std::string>& ids) const;

  const std::unique_ptr<SoundEndpoints> endpoints_;
  const std::filesystem::path directory_;
  WakeEvent wake_{WakeEvent::Reset::Auto};
  std::thread thread_;

  std::mutex mutex_;
  bool stopping_ = false;
  bool streaming_ = false;
  bool enabled_ = true;
  std::vector<std::pair<std::string, bool>> notifications_;
  std::string status_;

  // Worker
  HostMuteLogic logic_;
  bool opened_ = false;
  bool said_unavailable_ = false;
  std::uint64_t held_since_us_ =
      0;  // a stream's end waits for the next stream's start; 0: none does
};
