// A Windows of a test's own, by Wine (scripts/wine), in which it runs programs of the Windows
// build: those that lie in the folder named by LUND_WINDOWS_BIN. One thread.
#pragma once

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

class WineDesk {
 public:
  struct Options {
    bool ten = false;    // Wine 10 in place of the distribution's; root only
    bool sound = false;  // with a speaker, which is a sound server's
  };

  // Why there can be none here; empty when there can. That the programs haven't been built is no
  // such reason, but a failure.
  static std::string missing(Options options);
  static std::string missing() { return missing({}); }

  // Returns when programs can be started; takes about two seconds.
  explicit WineDesk(Options options);
  WineDesk() : WineDesk(Options{}) {}
  ~WineDesk();  // everything in it ends
  WineDesk(const WineDesk&) = delete;
  WineDesk& operator=(const WineDesk&) = delete;

  bool running() const { return !environment_.empty(); }
  const std::string& display() const { return environment_.at("DISPLAY"); }  // of X, ":7"
  // What programs in it have beside the test's own; native ones, too, that are to see its display.
  const std::map<std::string, std::string>& environment() const { return environment_; }
  std::filesystem::path drive_c() const;

  // A file of this computer as a program in it names it.
  static std::string windows_path(const std::filesystem::path& path);

  // `program`: the name of one in the folder, "lunderhaze.exe", or else one of Wine's own, "reg".
  // SIGINT is Ctrl+C to it, SIGKILL an end at once. `more` is added to the environment.
  std::unique_ptr<ChildProcess> start(
      const std::string& program, const std::vector<std::string>& arguments,
      const std::map<std::string, std::string>& more = {},
      ChildProcess::Streams streams = ChildProcess::Streams::Piped) const;
  // To its end; the test fails when it doesn't end by then.
  RunResult run(const std::string& program, const std::vector<std::string>& arguments,
                std::chrono::milliseconds deadline = std::chrono::seconds(60),
                const std::map<std::string, std::string>& more = {}) const;

 private:
  std::vector<std::string> command(const std::string& program,
                                   const std::vector<std::string>& arguments) const;

  Options options_;
  std::unique_ptr<ChildProcess> script_;  // on a terminal, whose next line ends it
  std::map<std::string, std::string> environment_;
};
