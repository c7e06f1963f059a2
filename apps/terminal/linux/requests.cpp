#include "apps/terminal/requests.h"

#include <csignal>

namespace {
Requests g_requests;  // set before the handlers are
}

const char* const REPORT_REQUEST = "SIGUSR1";

void watch_requests(const Requests& requests) {
  g_requests = requests;
  for (const int number : {SIGINT, SIGTERM}) std::signal(number, [](int) { g_requests.end(); });
  if (requests.report != nullptr) std::signal(SIGUSR1, [](int) { g_requests.report(); });
}
