// A program of this project's, started by a test beside it in the same directory or by its whole
// path, as the test's user, as an administrator or as LocalSystem. Killed with its scope. One
// thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "control/windows/handles.h"

enum class As { Self, Administrator, System };

// What a started program says and hears; all the test's own without an output.
struct StandardStreams {
  HANDLE input = nullptr;
  HANDLE output = nullptr;
  HANDLE error = nullptr;  // the test's own
};

class StartedProgram {
 public:
  // `command` begins with the program's file, as "lunderhaze-worker.exe", without a blank in it.
  StartedProgram(const std::wstring& command, As as, const StandardStreams& streams = {});
  ~StartedProgram();
  StartedProgram(const StartedProgram&) = delete;
  StartedProgram& operator=(const StartedProgram&) = delete;

  explicit operator bool() const { return static_cast<bool>(process_); }  // could be started
  std::uint32_t id() const { return id_; }
  HANDLE process() const { return process_.get(); }
  std::optional<std::uint32_t> wait(std::chrono::milliseconds deadline) const;  // the exit code
  void end();

  static constexpr const char* NO_SYSTEM = "nobody can be LocalSystem here";

 private:
  Handle process_;
  std::uint32_t id_ = 0;
};
