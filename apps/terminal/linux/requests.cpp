#include "apps/terminal/requests.h"

#include <csignal>

namespace {
Requests g_requests;  // set before the handlers are
}

const char* const REPORT_REQUEST = "SIGUSR1";

void watch_requests(const Requests& requests) {
  g_requests = requests;
  const auto end = [](int) { g_requests.end(); };
  std::signal(SIGINT, end);
  std::signal(SIGTERM, end);
  if (requests.report != nullptr) std::signal(SIGUSR1, [](int) { g_requests.report(); });
}
