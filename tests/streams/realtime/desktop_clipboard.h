// A desktop's clipboard in memory, for a listener thread of its own; the test is the program that
// copies and pastes. Any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <utility>

#include "control/wake_event.h"
#include "streams/clipboard_access.h"

// What outlives the access, which the bridge owns.
struct Desktop {
  static constexpr auto DEADLINE = std::chrono::seconds(20);

  void copy(ClipboardForm form, std::vector<std::uint8_t> bytes) {
    const std::lock_guard lock(mutex);
    forms = {{form, std::move(bytes)}};
    ++sequence;
    pending = true;
    if (listener != nullptr) listener->set();
  }
  void copy_text(const std::string& text) { copy(ClipboardForm::Text, {text.begin(), text.end()}); }
  // Waits until this has been put here; what is there instead after the deadline.
  std::string text_after_waiting_for(const std::string& text) {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, DEADLINE, [&] { return written && written->text == text; });
    return written && written->text ? *written->text : "nothing";
  }
  std::vector<std::uint8_t> png_after_waiting() {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, DEADLINE, [&] { return written && !written->png.empty(); });
    return written ? written->png : std::vector<std::uint8_t>();
  }

  std::mutex mutex;
  std::condition_variable changed;
  std::map<ClipboardForm, std::vector<std::uint8_t>> forms;
  std::uint32_t sequence = 0;
  bool pending = false;
  WakeEvent* listener = nullptr;
  std::shared_ptr<const ClipboardContent> written;
  bool there = true;
  bool pictures = true;
  std::atomic<int> starts{0};
};

class DesktopClipboard final : public ClipboardAccess {
 public:
  explicit DesktopClipboard(Desktop& desktop) : desktop_(desktop) {
    const std::lock_guard lock(desktop_.mutex);
    desktop_.listener = &listener_;
  }
  ~DesktopClipboard() override {
    const std::lock_guard lock(desktop_.mutex);
    desktop_.listener = nullptr;
  }
  const ClipboardTraits& traits() const override { return traits_; }
  bool start(const ClipboardLog&) override {
    ++desktop_.starts;
    return desktop_.there;
  }
  void finish() override {}
  bool has_pictures() override { return desktop_.pictures; }
  bool wait(std::uint32_t timeout_ms) override {
    listener_.wait(timeout_ms);
    const std::lock_guard lock(desktop_.mutex);
    return std::exchange(desktop_.pending, false);
  }
  std::uint32_t sequence() override {
    const std::lock_guard lock(desktop_.mutex);
    return desktop_.sequence;
  }
  bool open() override {
    desktop_.mutex.lock();
    return true;
  }
  bool has(ClipboardForm form) override { return desktop_.forms.contains(form); }
  std::optional<ClipboardBlock> read(ClipboardForm form, std::uint64_t) override {
    return ClipboardBlock{desktop_.forms[form], desktop_.forms[form].size()};
  }
  void close() override { desktop_.mutex.unlock(); }
  std::optional<std::uint32_t> write(std::shared_ptr<const ClipboardContent> content) override {
    const std::lock_guard lock(desktop_.mutex);
    desktop_.written = std::move(content);
    desktop_.changed.notify_all();
    return ++desktop_.sequence;
  }
  void wake() override { listener_.set(); }
  void interrupt() override { listener_.set(); }

 private:
  Desktop& desktop_;
  ClipboardTraits traits_{false, "private", "WIC"};
  WakeEvent listener_{WakeEvent::Reset::Auto};
};
