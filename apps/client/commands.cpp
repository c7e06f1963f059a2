#include "apps/client/commands.h"

#include <cstdio>

#include "apps/client/relay_links.h"

namespace client_app {

int fail(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "lunderhaze-client: %s\n", text.c_str());
  return status;
}

ClientConfig::~ClientConfig() {
  lund_secure_wipe(static_cast<lund_client_config*>(this), sizeof(lund_client_config));
}

void configure(const Arguments& args, const ClientStore& store, const lund_relay_config& given,
               const std::string& own_name, ClientConfig* config) {
  config->identity = store.identity();
  config->name = own_name.c_str();
  config->path_mode = args.path_mode;
  relays_to_use(given, store.relays(), &config->relays);
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
