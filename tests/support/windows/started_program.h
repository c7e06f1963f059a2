// A program of this project's, started by a test beside it in the same directory, as the test's
// user or as LocalSystem. Killed with its scope. One thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "control/windows/handles.h"

enum class As { Self, System };

// What a started program says and hears; nothing where it is the test's own.
struct StandardStreams {
  HANDLE input = nullptr;
  HANDLE output = nullptr;
};

class StartedProgram {
 public:
  // `command` begins with the name of the program's file, as "lunderhaze-worker.exe".
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
