#include "apps/client/commands.h"

#include <cstdio>

namespace client_app {

int fail(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "lunderhaze-client: %s\n", text.c_str());
  return status;
}

std::string address_text(const lund_rv_endpoint& address) {
  char text[LUND_ADDR_TEXT];
  lund_addr_format(text, sizeof text, address);
  return text;
}

std::string code_text(const std::uint8_t key[LUND_KEY_SIZE]) {
  char text[LUND_KEY_CODE_TEXT];
  lund_key_code(text, key);
  return text;
}

}  // namespace client_app
