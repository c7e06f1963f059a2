// What tests do with a platform's clipboard through its own access, and how they say what they
// find.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "streams/clipboard_access.h"
#include "tests/support/clipboard_items.h"

constexpr std::uint64_t CLIPBOARD_TEXT_MAX = 2 << 20;

inline std::shared_ptr<const ClipboardContent> text_content(const std::string& text) {
  auto content = std::make_shared<ClipboardContent>();
  content->text = text;
  return content;
}

// A part of a test.
class ClipboardUser {
 protected:
  ~ClipboardUser() = default;
  virtual ClipboardAccess& access() = 0;

  std::optional<ClipboardBlock> read(ClipboardForm form, std::uint64_t most) {
    if (!access().open()) {
      ADD_FAILURE() << "can't be opened";
      return std::nullopt;
    }
    EXPECT_TRUE(access().has(form));
    auto block = access().read(form, most);
    access().close();
    return block;
  }
  std::string read_text() {
    const auto block = read(ClipboardForm::Text, CLIPBOARD_TEXT_MAX);
    return block ? text_of(block->bytes) : "nothing";
  }
  std::uint32_t put(const std::shared_ptr<const ClipboardContent>& content) {
    const auto sequence = access().write(content);
    EXPECT_TRUE(sequence);
    return sequence.value_or(0);
  }
};
