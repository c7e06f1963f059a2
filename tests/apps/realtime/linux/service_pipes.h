// Pipes of the service's own names on a /run that is empty and the test's own: pipes are served in
// directories alone that nobody but root can change. One thread.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

#include "control/ipc_transport.h"
#include "tests/support/linux/environment.h"

namespace service_test {

class PipesTest : public testing::Test {
 protected:
  void SetUp() override {
    if (geteuid() != 0 || !run_.ok()) GTEST_SKIP() << "needs root and mount namespaces";
  }
  // From any thread.
  void say(const std::string& line) {
    const std::lock_guard lock(lines_mutex_);
    lines_.push_back(line);
  }
  int said(const std::string& part) {
    const std::lock_guard lock(lines_mutex_);
    int count = 0;
    for (const std::string& line : lines_) count += line.find(part) != line.npos ? 1 : 0;
    return count;
  }

 private:
  Mount run_ = Mount::tmpfs("/run", "mode=0755");
  std::mutex lines_mutex_;
  std::vector<std::string> lines_;
};

}  // namespace service_test
