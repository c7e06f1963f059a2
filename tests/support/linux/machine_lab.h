// A machine of a test's own, for programs that are one a machine: mount and network namespaces in
// which /run and /var/lib are empty and the network is a loopback device alone. All else is the
// real one's, /tmp among it: by its socket file there a program inside reaches an X server outside.
// What is mounted, bound or stored inside is never seen outside, and nothing stands between two
// labs.
//
// Processes inside are the computer's own, with the ids that all others know them by, so that a
// test can be the peer of one. All of them end with the lab. One thread.
#pragma once

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "tests/support/child_process.h"

class MachineLab {
 public:
  // Why there can be no lab on this computer (not root, kernel without); empty when there can be.
  static const std::string& missing();

  MachineLab();
  ~MachineLab();
  MachineLab(const MachineLab&) = delete;
  MachineLab& operator=(const MachineLab&) = delete;

  // The command line that runs a program inside, for a ChildProcess, whose pid is then the
  // program's own. The program ends at the latest with the thread that starts it.
  std::vector<std::string> inside(const std::vector<std::string>& arguments) const;
  // The same, run to its end.
  RunResult run(const std::vector<std::string>& arguments,
                const std::map<std::string, std::string>& environment = {}) const;
  // Calls this on a thread that lives inside; the sockets and files that it opens stay there.
  void call(const std::function<void()>& function) const;
  // Where a test outside finds a file of the inside, given by its absolute path there.
  std::filesystem::path path(const std::filesystem::path& inside) const;

  // The live processes inside that run this program ("lunderhaze-worker"), or all, lowest first.
  std::vector<pid_t> processes(const std::string& program = {}) const;

 private:
  std::string process_directory() const { return "/proc/" + std::to_string(holder_.pid()); }

  ChildProcess holder_;  // does nothing; the namespaces are its own
};
