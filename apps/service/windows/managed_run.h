// A run under the SCM, where that started this process. Main thread; the run has a thread of the
// SCM's dispatcher then, which itself has the main thread.
#pragma once

#include <functional>

// What `run` returns is what the SCM is told, and returned; a run that throws ends with `on_throw`.
// In the foreground `run` is called as it is.
int run_under_manager(const std::function<int()>& run, int on_throw);
