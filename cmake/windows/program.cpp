// Part of every program. What ends by abort() - a failed assertion, an exception that nobody takes
// - would have the exit code 3 of the C library, which a worker's service reads as another worker's
// being there. It ends by an exception instead, as a fault of any other kind does: its code is
// STATUS_FAIL_FAST_EXCEPTION, and Windows Error Reporting is told.
#include <windows.h>

#include <csignal>
#include <cstdio>

namespace {

void fail_fast(int) {
  std::fflush(stderr);  // why
  RaiseFailFastException(nullptr, nullptr, 0);
}

[[maybe_unused]] const auto former = std::signal(SIGABRT, fail_fast);

}  // namespace
