// What the stored texts have in common: lines in, a bounded text out, and temporaries that don't
// outlive their scope.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "connection/wiped.h"

// Hands out the lines of a text, without their carriage returns and cut at MAX characters. A line
// lives until the next one; its buffer is wiped with the reader.
template <std::size_t MAX>
class LineReader {
 public:
  LineReader(const char* bytes, std::size_t size) : rest_(bytes, size) {}

  bool next() {
    if (rest_.empty()) return false;
    const std::size_t end = rest_.find('\n');
    length_ = 0;
    was_cut_ = false;
    for (const char c : rest_.substr(0, end)) {
      if (c == '\r') continue;
      was_cut_ = length_ == MAX;
      if (was_cut_) break;
      buffer_.value[length_++] = c;
    }
    rest_.remove_prefix(end == rest_.npos ? rest_.size() : end + 1);
    return true;
  }
  std::string_view line() const { return {buffer_.value.data(), length_}; }
  bool was_cut() const { return was_cut_; }

 private:
  std::string_view rest_;
  Wiped<std::array<char, MAX>> buffer_;
  std::size_t length_ = 0;
  bool was_cut_ = false;
};

// Builds a terminated text in a caller's buffer.
class TextWriter {
 public:
  TextWriter(char* out, std::size_t capacity)
      : out_(out), capacity_(out != nullptr ? capacity : 0) {}

  void add(std::string_view text) {
    overflow_ = overflow_ || text.size() >= capacity_ - size_;
    if (overflow_) return;
    std::memcpy(out_ + size_, text.data(), text.size());
    size_ += text.size();
  }
  void fail() { overflow_ = true; }

  // The length; 0 when it didn't fit, and the whole buffer is wiped then.
  std::size_t finish() {
    if (capacity_ == 0) return 0;
    if (overflow_) {
      lund_secure_wipe(out_, capacity_);
      return 0;
    }
    out_[size_] = '\0';
    return size_;
  }

 private:
  char* out_;
  std::size_t capacity_;
  std::size_t size_ = 0;
  bool overflow_ = false;
};

// The white space of the C locale.
inline std::string_view trim(std::string_view text) {
  constexpr std::string_view SPACE = " \t\n\v\f\r";
  const std::size_t first = text.find_first_not_of(SPACE);
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(SPACE) - first + 1);
}

// Takes what stands ahead of the next blank off `rest`; blanks ahead of it are skipped.
inline std::string_view next_field(std::string_view& rest, std::string_view blanks = " ") {
  rest.remove_prefix(std::min(rest.find_first_not_of(blanks), rest.size()));
  const std::string_view field = rest.substr(0, rest.find_first_of(blanks));
  rest.remove_prefix(field.size());
  return field;
}
