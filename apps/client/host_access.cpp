#include "apps/client/host_access.h"

#include <algorithm>
#include <cstdio>

#include "apps/client/host_choice.h"
#include "apps/client/known_hosts.h"
#include "control/sysinfo.h"

namespace client_app {

ExitStatus HostAccess::open(const Arguments& args, std::string* error) {
  if (!store_.open(args.store, error)) return EXIT_LOCAL;
  const lund_host_entry* known = store_.find(args.host);
  if (!known) {
    *error = "no paired host answers to \"" + args.host + "\": pair first, or name one";
    return EXIT_REFUSED;
  }
  host_ = *known;
  if (!given_relays(args.relays, args.relay_file, &given_, error)) return EXIT_USAGE;
  if (!open_link(args, error)) return EXIT_LOCAL;
  lund_wipe_stack();  // the store and the engine hold what they need
  add_candidates(link_, parse_host(args.host), &host_);
  link_.look_for(wanted_for_connecting(host_, args.path_mode));
  link_.set_drop(args.drop_percent, args.seed);
  return EXIT_OK;
}

bool HostAccess::open_link(const Arguments& args, std::string* error) {
  const std::string own_name = computer_name_utf8();
  lund_client_config config;
  configure(args, store_, given_, own_name, &config);
  config.has_host_key = 1;
  std::copy(std::begin(host_.key), std::end(host_.key), config.host_key);
  return link_.open(config, error);
}

bool HostAccess::remember(const HostSession& session, std::string* error, std::FILE* talk) {
  if (session.paths().empty()) return true;
  const std::uint64_t now_s = lund_wall_us() / 1'000'000;
  std::fputs(remember_relays(given_, &store_).c_str(), talk);
  return store_.update(
      host_,
      [&](lund_host_entry& entry) { learn(session.paths(), link_.lan_search(), now_s, &entry); },
      error);
}

lund_hello make_hello(const Arguments& args) {
  lund_hello hello;
  hello.width = static_cast<std::uint16_t>(args.width);
  hello.height = static_cast<std::uint16_t>(args.height);
  hello.fps = static_cast<std::uint16_t>(args.fps);
  hello.bitrate_kbps = args.bitrate_kbps;
  hello.codec = args.codec == "hevc" ? 1 : args.codec == "h264" ? 2 : 0;
  hello.fec_percent = static_cast<std::uint8_t>(args.fec);
  hello.display_mode = args.virtual_display ? 1 : 0;
  hello.screen = static_cast<std::uint8_t>(args.screen);
  return hello;
}

ExitStatus exit_status(SessionEnd end) {
  switch (end) {
    case SessionEnd::Done:
      return EXIT_OK;
    case SessionEnd::NoAnswer:
      return EXIT_NO_ANSWER;
    case SessionEnd::LocalFailure:
      return EXIT_LOCAL;
    case SessionEnd::UnknownDevice:
    case SessionEnd::Busy:
    case SessionEnd::Refused:
    case SessionEnd::HostEnded:
      break;
  }
  return EXIT_REFUSED;
}

}  // namespace client_app
