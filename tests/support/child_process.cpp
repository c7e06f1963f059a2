// What is the same of a program on every platform.
#include "tests/support/child_process.h"

#include <gtest/gtest.h>

bool ChildProcess::wait_for_output(const std::string& text, std::chrono::milliseconds deadline,
                                   std::size_t from) {
  const auto until = std::chrono::steady_clock::now() + deadline;
  while (output_.find(text, from) == std::string::npos) {
    if (!read_some(until)) return false;
  }
  return true;
}

RunResult run_program(const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& environment,
                      std::chrono::milliseconds deadline) {
  ChildProcess child(arguments, environment);
  const auto status = child.wait(deadline);
  EXPECT_TRUE(status.has_value()) << arguments[0] << " did not end; it said:\n" << child.output();
  return {status.value_or(-1), child.output()};
}
