// The relay servers of one run: those named by link for it, before those that the store remembers.
// A link holds the server's key, so no text made here shows one.
#pragma once

#include <filesystem>
#include <istream>
#include <string>
#include <vector>

#include "connection/lists.h"
#include "control/client_store.h"

namespace client_app {

// One link a line; blank lines are skipped. False with `error`.
bool read_relay_links(std::istream& in, const std::string& source, lund_relay_config* relays,
                      std::string* error);

// One link of the command line; "-" reads them from standard input.
bool add_relay_link(const std::string& link, lund_relay_config* relays, std::string* error);

// All that the command line names: `links`, and those in `file` unless that is empty.
bool given_relays(const std::vector<std::string>& links, const std::filesystem::path& file,
                  lund_relay_config* relays, std::string* error);

// `given` first, then as many of the remembered as there is room for.
lund_relay_config relays_to_use(const lund_relay_config& given,
                                const lund_relay_config& remembered);

// Stores those of `given` that have served; `text` gets a line on each that is new or can't be.
void remember_relays(const lund_relay_config& given, ClientStore* store, std::string* text);

std::string relay_name(const lund_relay_server& server);  // "host:port"

}  // namespace client_app
