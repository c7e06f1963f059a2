// A desktop that plays no input but writes down what it was asked to. An input desktop is a name;
// the handles open on it are kept count of. The record outlives the sink. Allocates nothing while
// `write_calls` is off.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "streams/input_sink.h"

struct InputRecord {
  // "move 10,20", "rel 1 -2", "button 1 down", "wheel 120" (vertical), "hwheel -120", "key 4 up"
  std::vector<std::string> calls;
  bool write_calls = true;
  InputKey last_key;
  std::function<void()> on_call;
  SendResult result;  // of all sends

  std::string desktop = "Default";  // empty: none can be opened
  bool name_readable = true;
  bool attach_succeeds = true;
  int attached = 0;
  std::vector<std::pair<InputSink::Desktop, std::string>> open_desktops;

  InputRecord() { open_desktops.reserve(16); }
  std::vector<std::string> take() { return std::exchange(calls, {}); }
};

class FakeInputSink : public InputSink {
 public:
  explicit FakeInputSink(std::shared_ptr<InputRecord> record) : record_(std::move(record)) {}

  Words words() const override { return {"FakeInput", "somebody else has the keyboard"}; }

  Desktop open_input_desktop() override {
    if (record_->desktop.empty()) return NO_DESKTOP;
    record_->open_desktops.emplace_back(++last_handle_, record_->desktop);
    return last_handle_;
  }
  bool desktop_name(Desktop desktop, std::string* name) override {
    const auto open = find(desktop);
    if (!record_->name_readable || open == record_->open_desktops.end()) return false;
    *name = open->second;
    return true;
  }
  bool attach_this_thread(Desktop) override {
    record_->attached += record_->attach_succeeds ? 1 : 0;
    return record_->attach_succeeds;
  }
  void close_desktop(Desktop desktop) override {
    const auto open = find(desktop);
    ASSERT_NE(open, record_->open_desktops.end()) << "closed twice";
    record_->open_desktops.erase(open);
  }

  SendResult move_to(DesktopPoint pixel) override {
    return played([&] { return "move " + text(pixel.x) + "," + text(pixel.y); });
  }
  SendResult move_by(std::int32_t dx, std::int32_t dy) override {
    return played([&] { return "rel " + text(dx) + " " + text(dy); });
  }
  SendResult button(int button, bool down) override {
    return played([&] { return "button " + text(button) + (down ? " down" : " up"); });
  }
  SendResult wheel(WheelAxis axis, std::int32_t delta) override {
    return played(
        [&] { return (axis == WheelAxis::Vertical ? "wheel " : "hwheel ") + text(delta); });
  }
  SendResult key(const InputKey& key, bool down) override {
    record_->last_key = key;
    return played([&] { return "key " + text(key.usage) + (down ? " down" : " up"); });
  }

 private:
  std::vector<std::pair<Desktop, std::string>>::iterator find(Desktop desktop) {
    return std::ranges::find(record_->open_desktops, desktop,
                             &std::pair<Desktop, std::string>::first);
  }
  static std::string text(int value) { return std::to_string(value); }
  template <typename Say>
  SendResult played(Say say) {
    if (record_->write_calls) record_->calls.push_back(say());
    if (record_->on_call) record_->on_call();
    return record_->result;
  }

  const std::shared_ptr<InputRecord> record_;
  Desktop last_handle_ = NO_DESKTOP;
};
