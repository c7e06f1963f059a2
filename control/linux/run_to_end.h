// Another program, run to its end: without a shell, without standard input, in the language "C" so
// that what it says can be read, and in a process group of its own, which is killed when the time
// is up. Blocks; any thread.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

struct ProgramEnd {
  enum class How {
    Exited,
    Signalled,
    TimedOut,  // and was killed
    NotFound,
    Failed,  // could not be started
  };
  How how = How::Failed;
  int status = 0;      // of one that exited
  std::string output;  // standard output and error together, the first 256 KiB

  bool succeeded() const { return how == How::Exited && status == 0; }
};

// In the directories of PATH that are absolute, then in those of the system's administration, which
// an ordinary user's PATH often lacks. Empty when there is none.
std::filesystem::path find_program(const std::string& name);

// `arguments[0]` is a name for find_program, or a path.
ProgramEnd run_to_end(const std::vector<std::string>& arguments, std::uint32_t timeout_ms);
