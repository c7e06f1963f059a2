#include "apps/ctl/service_link.h"

namespace ctl {

std::optional<HostReport> ask_status(ServiceLink& service, Outcome* refusal) {
  const host_service::Result result = service.ask({host_service::Verb::Status, {}});
  if (result.status == host_service::Status::Ok) return parse_status(result.text);
  *refusal = failure(result);
  return std::nullopt;
}

}  // namespace ctl
