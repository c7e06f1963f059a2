// The way to the service, so that commands can be tried on another one.
#pragma once

#include "apps/ctl/outcome.h"
#include "apps/ctl/status_text.h"
#include "control/ipc_transport.h"

namespace ctl {

class ServiceLink {
 public:
  virtual ~ServiceLink() = default;
  // A whole exchange; blocks for 15 s at most.
  virtual host_service::Result ask(const host_service::Request& request) = 0;
};

// What the service reports, or why it doesn't in `refusal`.
std::optional<HostReport> ask_status(ServiceLink& service, Outcome* refusal);

}  // namespace ctl
