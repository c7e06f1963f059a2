#include "apps/client/commands.h"

#include <cstdio>

#include "apps/client/relay_links.h"

namespace client_app {

int fail(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "lunderhaze-client: %s\n", text.c_str());
  std::fflush(stderr);
  return status;
}

void configure(const Arguments& args, const ClientStore& store, const lund_relay_config& given,
               const std::string& own_name, lund_client_config* config) {
  config->identity = store.identity();
  config->name = own_name.c_str();
  config->path_mode = args.path_mode;
  relays_to_use(given, store.relays(), &config->relays);
}

}  // namespace client_app
