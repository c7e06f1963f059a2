#include <algorithm>
#include <fstream>
#include <iostream>
#include <iterator>

#include "apps/ctl/commands.h"
#include "connection/secure.h"
#include "control/text.h"

namespace ctl {

namespace {

constexpr std::string_view LINK_BEGIN = "lunderhaze-relay:";

bool gather(const std::string& source, std::vector<std::string>* links) {
  std::vector<std::string> read;
  if (source.starts_with(LINK_BEGIN)) {
    read.push_back(source);
  } else if (source == "-") {
    read = read_links(std::cin);
  } else {
    std::ifstream file(utf8_path(source));
    if (!file) return false;
    read = read_links(file);
  }
  std::move(read.begin(), read.end(), std::back_inserter(*links));
  return true;
}

// Never shows one: it may be a link that was mistyped, with its key.
std::string unreadable(std::size_t number) {
  return "argument " + std::to_string(number) +
         " is neither a link (lunderhaze-relay://host[:port]#key) nor a file that can be read";
}

}  // namespace

bool read_relays(const std::vector<std::string>& sources, lund_relay_config* relays,
                 std::string* error) {
  std::vector<std::string> links;
  bool good = true;
  for (std::size_t i = 0; i < sources.size() && good; ++i) {
    good = gather(sources[i], &links);
    if (!good) *error = unreadable(i + 1);
  }
  good = good && add_relays(relays, links, error) == ListChange::Done;
  for (std::string& link : links) lund_secure_wipe(link.data(), link.size());
  return good;
}

}  // namespace ctl
