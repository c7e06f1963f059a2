#include <signal.h>
#include <sys/resource.h>

#include "tests/support/rendezvous_sockets.h"

const int RendezvousProgram::REPORT_SIGNAL = SIGUSR1;

bool LoopbackHosts::can_open(int count) {
  constexpr rlim_t OTHERS = 100;
  const rlim_t needed = static_cast<rlim_t>(count) + OTHERS;
  rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return false;
  if (limit.rlim_cur >= needed) return true;
  limit.rlim_cur = needed;
  return limit.rlim_max >= needed && setrlimit(RLIMIT_NOFILE, &limit) == 0;
}
