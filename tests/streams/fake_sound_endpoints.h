// Sound outputs that are a map, and whose owner may be asked about everything that was set. The
// record outlives the object that the code under test holds. One thread.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "streams/sound_endpoints.h"

struct FakeSound {
  std::map<std::string, bool> muted;  // what there is, and whether it is muted
  std::string default_output;
  bool available = true;      // can be opened
  bool mute_succeeds = true;  // both ways
  std::vector<std::string> calls;
  SoundEndpoints::Listener* listener = nullptr;  // while it is open

  std::unique_ptr<SoundEndpoints> endpoints();

  // As the user does it.
  void set_default(const std::string& id) {
    default_output = id;
    if (listener) listener->default_changed();
  }
  void set_mute(const std::string& id, bool on) {
    muted[id] = on;
    if (listener) listener->mute_changed(id, on);
  }
};

class FakeSoundEndpoints final : public SoundEndpoints {
 public:
  explicit FakeSoundEndpoints(FakeSound& sound) : sound_(sound) {}
  ~FakeSoundEndpoints() override { sound_.listener = nullptr; }

  bool open(Listener* listener, std::string* error) override {
    if (!sound_.available) *error = "no sound here";
    if (sound_.available) sound_.listener = listener;
    return sound_.available;
  }
  void close() override { sound_.listener = nullptr; }
  std::string default_output() override { return sound_.default_output; }
  int is_muted(const std::string& id) override {
    const auto found = sound_.muted.find(id);
    return found == sound_.muted.end() ? -1 : int{found->second};
  }
  bool can_mute(const std::string& id) override {
    return sound_.mute_succeeds && sound_.muted.contains(id);
  }
  bool set_mute(const std::string& id, bool muted) override {
    sound_.calls.push_back((muted ? "mute " : "unmute ") + id);
    if (sound_.mute_succeeds) sound_.muted.at(id) = muted;
    return sound_.mute_succeeds;
  }

 private:
  FakeSound& sound_;
};

inline std::unique_ptr<SoundEndpoints> FakeSound::endpoints() {
  return std::make_unique<FakeSoundEndpoints>(*this);
}
