// A run under the SCM, which has to have started this process. Main thread; the run has a thread of
// the SCM's dispatcher then, which itself has the main thread.
#pragma once

#include <functional>

// What `run` returns is what the SCM is told, and returned; `on_failure` where it throws, or isn't
// called since there is no SCM to be told.
int run_under_manager(const std::function<int()>& run, int on_failure);
