// A clipboard by which a test copies and pastes as other programs would, and locks it. Used on the
// virtual clock, where a wait without a change moves the clock by its time-out, or by a listener
// thread of its own.
#pragma once

#include <map>
#include <mutex>
#include <utility>

#include "connection/clock.h"
#include "control/wake_event.h"
#include "streams/clipboard_access.h"
#include "tests/support/virtual_time.h"

class FakeClipboard final : public ClipboardAccess {
 public:
  using Bytes = std::vector<std::uint8_t>;
  static Bytes bytes(std::string_view text) { return {text.begin(), text.end()}; }

  // ---- The test's side; on the virtual clock.
  void copy(std::map<ClipboardForm, Bytes> forms) {
    forms_ = std::move(forms);
    change();
  }
  void copy_text(std::string_view text) { copy({{ClipboardForm::Text, bytes(text)}}); }
  // As something does that isn't a change of the content.
  void change() {
    ++sequence_;
    changed_ = true;
  }

  ClipboardTraits kind{false, "x-kde-passwordManagerHint", "libpng"};
  bool pictures = true;
  bool there = true;
  int locked_for_opens = 0;  // so many fail
  int locked_for_writes = 0;
  bool reads_fail = false;
  std::uint64_t claimed_size = 0;  // a block larger than what may be read

  std::vector<std::uint64_t> opened_at_us;  // every try
  std::vector<std::uint64_t> written_at_us;
  int reads = 0;
  std::shared_ptr<const ClipboardContent> written;
  int open_now = 0;

  // ---- The bridge's
  const ClipboardTraits& traits() const override { return kind; }
  bool start(const ClipboardLog&) override { return there; }
  void finish() override {}
  bool has_pictures() override { return pictures; }
  bool wait(std::uint32_t timeout_ms) override {
    if (!changed_ && timeout_ms != FOREVER_MS) virtual_time::advance_ms(timeout_ms);
    return std::exchange(changed_, false);
  }
  std::uint32_t sequence() override { return sequence_; }
  bool open() override {
    opened_at_us.push_back(lund_now_us());
    if (locked_for_opens > 0) return --locked_for_opens, false;
    ++open_now;
    return true;
  }
  bool has(ClipboardForm form) override { return forms_.contains(form); }
  std::optional<ClipboardBlock> read(ClipboardForm form, std::uint64_t most_bytes) override {
    ++reads;
    if (reads_fail) return std::nullopt;
    if (claimed_size > most_bytes) return ClipboardBlock{{}, claimed_size};
    return ClipboardBlock{forms_[form], forms_[form].size()};
  }
  void close() override { --open_now; }
  std::optional<std::uint32_t> write(std::shared_ptr<const ClipboardContent> content) override {
    written_at_us.push_back(lund_now_us());
    if (locked_for_writes > 0) return --locked_for_writes, std::nullopt;
    written = content;
    forms_.clear();
    if (content->text) forms_[ClipboardForm::Text] = bytes(*content->text);
    if (!content->png.empty()) forms_[ClipboardForm::Png] = content->png;
    if (!content->dib.empty()) forms_[ClipboardForm::Dib] = content->dib;
    change();
    return sequence_;
  }
  void wake() override {}
  void interrupt() override {}

 private:
  std::map<ClipboardForm, Bytes> forms_;
  std::uint32_t sequence_ = 0;
  bool changed_ = false;
};
