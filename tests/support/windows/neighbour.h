// Another process beside a test's own, which does with a pipe what the test tells it to: the
// program neighbour.exe, under the test's own account or as LocalSystem. Killed with its scope. One
// thread.
//
// Orders, each answered by a line, "no" for a failure:
//   serve NAME [plain]     serves the name, as the system's or with no owner said: its handle
//   accept                 waits for a client
//   open NAME              connects to the name
//   send COUNT BYTE        that many bytes in one write; they may wait for a reader
//   trickle COUNT BYTE     a byte each 200 ms, answered at its start
//   read COUNT             that many bytes: how many came before the end
//   mutex NAME             makes and holds a mutex
//   close                  closes what it has of a pipe
#pragma once

#include <cstdint>
#include <string>

#include "control/windows/handles.h"

class Neighbour {
 public:
  enum class As { Self, System };
  // Without a process where it can't be started, as LocalSystem on what has no token of it.
  explicit Neighbour(As as = As::Self);
  ~Neighbour();
  Neighbour(const Neighbour&) = delete;
  Neighbour& operator=(const Neighbour&) = delete;

  explicit operator bool() const { return static_cast<bool>(process_); }
  std::uint32_t id() const { return id_; }
  HANDLE process() const { return process_.get(); }

  std::string tell(const std::string& order);  // the answer; empty once it has ended
  void end();                                  // kills it and waits for its end

  static constexpr const char* NO_SYSTEM = "nobody can be LocalSystem here";

 private:
  Handle process_, orders_, answers_;
  std::uint32_t id_ = 0;
};
