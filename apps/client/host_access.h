// The way to a host that this device is paired with: its entry in the store, the relay servers that
// were given, and the link. What connecting takes, whatever the session is then used for. One
// thread.
#pragma once

#include <cstdio>
#include <string>

#include "apps/client/commands.h"
#include "apps/client/host_session.h"
#include "apps/client/relay_links.h"

namespace client_app {

class HostAccess {
 public:
  // EXIT_OK, or why there is no way, with `error`.
  ExitStatus open(const Arguments& args, std::string* error);

  HostLink& link() { return link_; }
  const lund_host_entry& host() const { return host_; }

  // What a session has shown is worth keeping however it ended; says on `talk` what that is. False
  // with `error`.
  bool remember(const HostSession& session, std::string* error, std::FILE* talk = stdout);

 private:
  bool open_link(const Arguments& args, std::string* error);

  ClientStore store_;
  lund_host_entry host_;
  lund_relay_config given_;
  HostLink link_;
};

// What the command line wishes of a screen.
lund_hello make_hello(const Arguments& args);

ExitStatus exit_status(SessionEnd end);

}  // namespace client_app
