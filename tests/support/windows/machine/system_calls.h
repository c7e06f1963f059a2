// Stands between the store with its log and the system's calls for files and data protection: each
// is told as a line and goes on to the system, unless a test has it fail. One thread.
#pragma once

#include <string>
#include <vector>

class SystemCalls {
 public:
  SystemCalls();
  ~SystemCalls();
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;

  // Calls of that name do nothing from now on but fail, with this as the system's error. A
  // WriteFile with ERROR_SUCCESS doesn't fail and says that it wrote one byte less than it was
  // given.
  void fail(const std::string& name, unsigned long error);
  // What was called since the last time: the name, then what matters of the arguments. Of paths the
  // last part, with a temporary name's random digits as "*".
  std::vector<std::string> take();
};
