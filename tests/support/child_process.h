// A program started by a test, with its output and its end. Killed and reaped when it goes out of
// scope. One thread. On Windows it has a console of its own, without a window.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class ChildProcess {
 public:
  enum class Streams {
    Piped,     // standard output and error into one pipe, standard input as the test's
    Terminal,  // all three on a terminal of the child's own, whose session it leads
  };

  // Starts `arguments[0]` (looked up in PATH) with the test's environment changed by `environment`;
  // an empty value removes a variable. Standard output and error are collected together, and each
  // line of them ends in \n alone.
  explicit ChildProcess(std::vector<std::string> arguments,
                        const std::map<std::string, std::string>& environment = {},
                        Streams streams = Streams::Piped);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // Reads until the output holds `text` at or behind `from`; false when the deadline passes or the
  // program ends first.
  bool wait_for_output(const std::string& text, std::chrono::milliseconds deadline,
                       std::size_t from = 0);

  // Waits for the end; the exit status, 128 + the signal's number, or nothing at the deadline.
  std::optional<int> wait(std::chrono::milliseconds deadline);

  void type(const std::string& keys) const;  // on its terminal
  // On Windows SIGINT and SIGTERM are Ctrl+C on its console, SIGBREAK is Ctrl+Break.
  void signal(int number) const;
  const std::string& output() const { return output_; }
  pid_t pid() const;
  double processor_seconds() const;  // user and system time so far

 private:
  bool read_some(std::chrono::steady_clock::time_point deadline);  // false: deadline or end of file
  void reap(bool block);

  struct Parts;
  std::unique_ptr<Parts> parts_;
  std::string output_;
  std::optional<int> status_;
};

// One of this project's programs, which lie together.
std::string own_program(const std::string& name);

// Runs to the end within the deadline; fails the test when it doesn't end.
struct RunResult {
  int status = -1;
  std::string output;
};
RunResult run_program(const std::vector<std::string>& arguments,
                      const std::map<std::string, std::string>& environment = {},
                      std::chrono::milliseconds deadline = std::chrono::seconds(60));
