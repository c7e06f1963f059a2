// The relay servers of one run: those named by link for it, before those that the store remembers.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "control/client_store.h"
#include "control/relay_list.h"

namespace client_app {

// All that the command line names: `links`, of which "-" stands for standard input, and those in
// `file` unless that is empty. False with `error`, which shows no link.
bool given_relays(const std::vector<std::string>& links, const std::filesystem::path& file,
                  lund_relay_config* relays, std::string* error);

// `given` first, then as many of the remembered as there is room for.
void relays_to_use(const lund_relay_config& given, const lund_relay_config& remembered,
                   lund_relay_config* all);

// Stores those of `given`, which have served; gives a line on each that is new, or what failed.
std::string remember_relays(const lund_relay_config& given, ClientStore* store);

}  // namespace client_app
