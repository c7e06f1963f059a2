#include "control/text.h"

#include <algorithm>
#include <iterator>

std::string addr_string(const lund_rv_endpoint& endpoint) {
  char text[LUND_ADDR_TEXT];
  lund_addr_format(text, sizeof text, endpoint);
  return text;
}

std::string code_of(const std::uint8_t key[LUND_KEY_SIZE]) {
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, key);
  return code;
}

bool is_code_of(const std::string& text, const std::uint8_t key[LUND_KEY_SIZE]) {
  std::uint8_t code[5];
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, key);
  return lund_key_code_parse(code, text.c_str()) == 0 && std::equal(code, std::end(code), id);
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view BLANKS = " \t\r\n";
  const std::size_t first = text.find_first_not_of(BLANKS);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(BLANKS) - first + 1);
}

bool same_but_for_case(std::string_view a, std::string_view b) {
  const auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return std::ranges::equal(a, b, {}, lower, lower);
}

const char* plural(int count) {
  return count == 1 ? "" : "s";
}

std::filesystem::path utf8_path(std::string_view name) {
  return std::u8string(name.begin(), name.end());
}
