#include "worker/main.h"

#include <cstdio>

#include "worker/version.h"
#include "worker/worker.h"

int worker_main(const std::vector<std::string>& arguments) {
  if (arguments.size() == 1 && arguments[0] == "--version") {
    std::printf("%s\n", LUND_VERSION_TEXT);
    return 0;
  }
  const auto system = host_app::native_worker_system();
  return static_cast<int>(host_app::run_worker(arguments, *system, native_platform()));
}
