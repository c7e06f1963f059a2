// Another process beside a test's own, which does with a pipe what the test tells it to: the
// program neighbour.exe, under the test's own account or as LocalSystem. Killed with its scope. One
// thread.
//
// Orders, each answered by a line, "no" for a failure:
//   serve NAME [plain]     serves the name, as the system's or with no owner said, beside what it
//                          serves already: its handle
//   accept                 waits for a client
//   open NAME              connects to the name
//   send COUNT BYTE        that many bytes in one write; they may wait for a reader
//   trickle COUNT BYTE     a byte each 200 ms, answered at its start
//   read COUNT             that many bytes: how many came before the end
//   mutex NAME             makes and holds a mutex
//   close                  closes what it has of pipes
#pragma once

#include <cstdint>
#include <string>

#include "control/windows/handles.h"
#include "tests/support/windows/started_program.h"

class Neighbour {
 public:
  // Without a process where there can be none as LocalSystem.
  explicit Neighbour(As as = As::Self);

  explicit operator bool() const { return static_cast<bool>(program_); }
  std::uint32_t id() const { return program_.id(); }
  HANDLE process() const { return program_.process(); }

  std::string tell(const std::string& order);  // the answer; empty once it has ended
  void end();                                  // kills it and waits for its end

  static constexpr const char* NO_SYSTEM = StartedProgram::NO_SYSTEM;

 private:
  // A pipe of standard input or output: the end that the program inherits, and the test's.
  struct Ends {
    Handle its, own;
  };
  static Ends make_input();
  static Ends make_output();

  Ends orders_ = make_input(), answers_ = make_output();
  StartedProgram program_;
};
