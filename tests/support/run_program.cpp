#include <gtest/gtest.h>

#include "tests/support/child_process.h"

RunResult run_program(const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& environment,
                      std::chrono::milliseconds deadline) {
  ChildProcess child(arguments, environment);
  const auto status = child.wait(deadline);
  EXPECT_TRUE(status.has_value()) << arguments[0] << " did not end; it said:\n" << child.output();
  return {status.value_or(-1), child.output()};
}
