// Stands between the code and the system's calls: each of the kinds that a test asks for is told as
// a line and goes on to the system, unless the test has it fail or answers in its place. One
// thread.
#pragma once

#include <set>
#include <string>
#include <vector>

class SystemCalls {
 public:
  enum class Of {
    Files,  // with what seals them, and with random names
    Pipes,  // and overlapped operations
    Trust,  // processes, tokens, and paths
    Computer,
    Process,  // what this one asks for itself
  };
  explicit SystemCalls(std::set<Of> kinds = {Of::Files});
  ~SystemCalls();
  SystemCalls(const SystemCalls&) = delete;
  SystemCalls& operator=(const SystemCalls&) = delete;

  // Calls of that name, or the one that is told by that line, do nothing from now on but fail, with
  // this as the system's error. A WriteFile with ERROR_SUCCESS doesn't fail and says that it wrote
  // one byte less than it was given; AdjustTokenPrivileges succeeds all the same, as it does.
  void fail(const std::string& call, unsigned long error);
  // The call that is told by this very line returns this, and does nothing.
  void answer(const std::string& line, unsigned long value);
  // All go on to the system again.
  void pass();
  // What was called since the last time: the name, then what matters of the arguments. Of the
  // store's paths the last part, with a temporary name's random digits as "*".
  std::vector<std::string> take();
};
