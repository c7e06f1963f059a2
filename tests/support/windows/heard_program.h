// A program of this project's with what it says, on standard output and error together; of its
// standard input it gets a text. Killed with its scope. One thread.
#pragma once

#include <chrono>
#include <string>

#include "tests/support/temp_directory.h"
#include "tests/support/windows/started_program.h"

class HeardProgram {
 public:
  static constexpr std::chrono::seconds PATIENCE{60};

  explicit HeardProgram(const std::wstring& command, As as = As::Self,
                        const std::string& input = "");

  explicit operator bool() const { return static_cast<bool>(program_); }  // could be started
  const StartedProgram& program() const { return program_; }
  std::string output() const;  // so far, its lines ended by LF alone
  bool says(const std::string& text, std::chrono::milliseconds deadline = PATIENCE) const;
  int wait() const { return static_cast<int>(program_.wait(PATIENCE).value_or(NO_END)); }
  void end() { program_.end(); }

  static constexpr std::uint32_t NO_END = 0xFFFF'FFFF;

 private:
  Handle open(const std::string& name, DWORD access, DWORD disposition) const;

  const TempDirectory directory_;
  StartedProgram program_;
};

// To its end.
struct ProgramEnd {
  int status;
  std::string output;
};
ProgramEnd run_program(const std::wstring& command, As as = As::Self,
                       const std::string& input = "");
