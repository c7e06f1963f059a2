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
