#include "streams/clipboard_text.h"

#include <cstddef>

#include "control/utf8.h"

namespace {

constexpr std::string_view REPLACEMENT = "\xEF\xBF\xBD";  // U+FFFD

std::string valid_utf8(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = utf8_sequence_length(text);
    out += length > 0 ? text.substr(0, length) : REPLACEMENT;
    text.remove_prefix(length > 0 ? length : 1);
  }
  return out;
}

std::string_view up_to_nul(std::string_view text) {
  return text.substr(0, text.find('\0'));
}

}  // namespace

std::string text_for_wire(std::string_view local) {
  const std::string text = valid_utf8(up_to_nul(local));
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool before_lf = i + 1 < text.size() && text[i + 1] == '\n';
    if (text[i] != '\r' || !before_lf) out += text[i];
  }
  return out;
}

std::string text_for_programs(std::string_view wire, bool crlf) {
  std::string text = valid_utf8(up_to_nul(wire));
  if (!crlf) return text;
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == '\n' && !out.ends_with('\r')) out += '\r';
    out += c;
  }
  return out;
}
