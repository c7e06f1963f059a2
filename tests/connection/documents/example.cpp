#include "tests/connection/documents/example.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <numeric>

#include "tests/support/vectors.h"

namespace {

constexpr std::size_t PACKET_LINE_BYTES = 16;
constexpr std::size_t VALUE_LINE_BYTES = 32;

// "50 01 0a", in lines.
std::vector<std::string> spaced_lines(std::span<const std::uint8_t> bytes) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < bytes.size(); at += PACKET_LINE_BYTES) {
    std::string line;
    for (const std::uint8_t byte :
         bytes.subspan(at, std::min(PACKET_LINE_BYTES, bytes.size() - at))) {
      if (!line.empty()) line += ' ';
      line += vectors::to_hex({&byte, 1});
    }
    lines.push_back(line);
  }
  return lines;
}

Bytes little_endian(std::uint64_t value, std::size_t size) {
  Bytes out;
  for (std::size_t i = 0; i < size; ++i) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  return out;
}

}  // namespace

Bytes counting(std::uint8_t first, std::size_t size) {
  Bytes out(size);
  std::iota(out.begin(), out.end(), first);
  return out;
}

Bytes bytes_of(const std::string& text) {
  return {text.begin(), text.end()};
}

Bytes joined(std::initializer_list<std::span<const std::uint8_t>> parts) {
  Bytes out;
  for (const auto part : parts) out.insert(out.end(), part.begin(), part.end());
  return out;
}

void Examples::add(const std::string& name, const Entry& entry) {
  EXPECT_TRUE(all_.emplace(name, entry).second) << "two examples are named " << name;
}

std::map<std::string, std::string> Examples::texts() const {
  std::map<std::string, std::string> texts;
  for (const auto& [name, entry] : all_) texts[name] = entry.text;
  return texts;
}

PacketExample::~PacketExample() {
  EXPECT_EQ(at_, bytes_.size()) << name_ << ": bytes that no field was named for";
  examples_.add(name_, entry_);
}

PacketExample& PacketExample::header(std::uint8_t type, std::uint8_t flags,
                                     std::uint32_t session_id) {
  entry_.type = type;
  return take("header", joined({Bytes{0x50, 1, type, flags}, little_endian(session_id, 4)}), false);
}

PacketExample& PacketExample::id(const char* field, std::uint32_t value) {
  char label[64];
  std::snprintf(label, sizeof label, "%s = 0x%08x", field, value);
  return take(label, little_endian(value, 4), false);
}

PacketExample& PacketExample::i32(const char* field, std::int32_t value) {
  return take(field + (" = " + std::to_string(value)),
              little_endian(static_cast<std::uint32_t>(value), 4), false);
}

PacketExample& PacketExample::integer(const char* field, std::size_t size, std::uint64_t value) {
  return take(field + (" = " + std::to_string(value)), little_endian(value, size), false);
}

PacketExample& PacketExample::bytes(const char* field, std::span<const std::uint8_t> value) {
  return take(field, value, false);
}

PacketExample& PacketExample::text(const char* field, const std::string& value) {
  return take(std::string(field) + " = \"" + value + "\"", bytes_of(value), true);
}

PacketExample& PacketExample::variable(const char* field, std::span<const std::uint8_t> value) {
  return take(field, value, true);
}

PacketExample& PacketExample::sealed(const char* field, std::size_t size) {
  return take(field, next(size), false);
}

PacketExample& PacketExample::variable_sealed(const char* field, std::size_t size) {
  return take(field, next(size), true);
}

std::span<const std::uint8_t> PacketExample::next(std::size_t size) const {
  return std::span(bytes_).subspan(at_, std::min(size, bytes_.size() - at_));
}

PacketExample& PacketExample::take(const std::string& label, std::span<const std::uint8_t> value,
                                   bool is_variable) {
  EXPECT_EQ(vectors::to_hex(next(value.size())), vectors::to_hex(value)) << name_ << ": " << label;
  const std::vector<std::string> lines = spaced_lines(value);
  char line[160];
  for (std::size_t i = 0; i < lines.size(); ++i) {
    if (i == 0)
      std::snprintf(line, sizeof line, "%4zu %4zu  %-47s  %s\n", at_, value.size(),
                    lines[i].c_str(), label.c_str());
    else
      std::snprintf(line, sizeof line, "%11s%s\n", "", lines[i].c_str());
    entry_.text += line;
  }
  at_ += value.size();
  if (is_variable)
    entry_.variable = true;
  else
    entry_.fixed_size += value.size();
  return *this;
}

ValuesExample& ValuesExample::value(const std::string& label, std::span<const std::uint8_t> bytes) {
  std::string shown = label;
  for (std::size_t at = 0; at < bytes.size(); at += VALUE_LINE_BYTES) {
    line(shown, vectors::to_hex(bytes.subspan(at, std::min(VALUE_LINE_BYTES, bytes.size() - at))));
    shown.clear();
  }
  return *this;
}

ValuesExample& ValuesExample::line(const std::string& label, const std::string& text) {
  char start[64];
  std::snprintf(start, sizeof start, "%-26s ", label.c_str());
  text_ += start + text + "\n";
  return *this;
}
