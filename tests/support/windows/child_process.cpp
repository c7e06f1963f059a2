#include "tests/support/child_process.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "control/windows/command_line.h"
#include "control/windows/handles.h"
#include "control/windows/wide_text.h"
#include "tests/support/windows/beside_test.h"
#include "tests/support/windows/started_program.h"

using Clock = std::chrono::steady_clock;

namespace {

constexpr DWORD EXIT_MS = 5'000;  // of a program that has closed its output

// Names of variables have one order, whatever their case.
struct ByName {
  bool operator()(const std::wstring& a, const std::wstring& b) const {
    return CompareStringOrdinal(a.c_str(), -1, b.c_str(), -1, TRUE) == CSTR_LESS_THAN;
  }
};

// As CreateProcessW takes it: "NAME=value" after each other, sorted, an empty one at the end.
std::wstring environment_block(const std::map<std::string, std::string>& changes) {
  std::map<std::wstring, std::wstring, ByName> variables;
  wchar_t* const own = GetEnvironmentStringsW();
  for (const wchar_t* at = own; *at != L'\0';) {
    const std::wstring entry = at;
    at += entry.size() + 1;
    const std::size_t equals = entry.find(L'=', 1);  // a drive's directory is called "=C:"
    variables[entry.substr(0, equals)] = entry.substr(equals + 1);
  }
  FreeEnvironmentStringsW(own);
  for (const auto& [name, value] : changes) {
    variables.erase(to_wide(name));
    if (!value.empty()) variables[to_wide(name)] = to_wide(value);
  }
  std::wstring block;
  for (const auto& [name, value] : variables) block += name + L'=' + value + L'\0';
  return block + L'\0';
}

}  // namespace

// A pipe can't be waited for, so a thread reads it.
struct ChildProcess::Parts {
  ~Parts() {
    if (reader.joinable()) reader.join();
  }

  void read() {
    char buffer[4096];
    DWORD size = 0;
    while (ReadFile(pipe.get(), buffer, sizeof buffer, &size, nullptr)) {
      const std::lock_guard lock(mutex);
      const auto lines = std::remove(buffer, buffer + size, '\r');
      unread.append(buffer, lines);
      changed.notify_one();
    }
    const std::lock_guard lock(mutex);
    ended = true;
    changed.notify_one();
  }

  Handle process, pipe;
  DWORD id = 0;
  std::mutex mutex;
  std::condition_variable changed;
  std::string unread;
  bool ended = false;
  std::thread reader;
};

ChildProcess::ChildProcess(std::vector<std::string> arguments,
                           const std::map<std::string, std::string>& environment, Streams streams)
    : parts_(std::make_unique<Parts>()) {
  Handle its_end;
  EXPECT_EQ(streams, Streams::Piped);
  EXPECT_TRUE(CreatePipe(parts_->pipe.receive(), its_end.receive(), nullptr, 0));
  SetHandleInformation(its_end.get(), HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = GetStdHandle(STD_INPUT_HANDLE);
  startup.hStdOutput = startup.hStdError = its_end.get();
  std::wstring line = command_line_of(arguments);
  std::wstring block = environment_block(environment);
  PROCESS_INFORMATION made{};
  if (!CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE,
                      CREATE_NO_WINDOW | CREATE_UNICODE_ENVIRONMENT, block.data(), nullptr,
                      &startup, &made)) {
    status_ = 127;  // as a shell has it
    parts_->ended = true;
    return;
  }
  CloseHandle(made.hThread);
  parts_->process.reset(made.hProcess);
  parts_->id = made.dwProcessId;
  parts_->reader = std::thread([parts = parts_.get()] { parts->read(); });
}

ChildProcess::~ChildProcess() {
  if (status_ || !parts_->process) return;
  TerminateProcess(parts_->process.get(), 1);
  reap(true);
}

bool ChildProcess::read_some(Clock::time_point deadline) {
  std::unique_lock lock(parts_->mutex);
  parts_->changed.wait_until(lock, deadline,
                             [this] { return parts_->ended || !parts_->unread.empty(); });
  output_ += parts_->unread;
  return !std::exchange(parts_->unread, {}).empty();
}

void ChildProcess::reap(bool block) {
  DWORD status = 0;
  const DWORD wait_ms = block ? EXIT_MS : 0;
  if (status_ || WaitForSingleObject(parts_->process.get(), wait_ms) != WAIT_OBJECT_0 ||
      !GetExitCodeProcess(parts_->process.get(), &status))
    return;
  status_ = static_cast<int>(status);
}

// The end of its output is the end of the program, but for its exit itself, for which there is
// always a moment.
std::optional<int> ChildProcess::wait(std::chrono::milliseconds deadline) {
  const auto until = Clock::now() + deadline;
  while (read_some(until)) {
  }
  if (std::lock_guard lock(parts_->mutex); !parts_->ended) return std::nullopt;
  reap(true);
  return status_;
}

// Only a process on the same console can send it, and to all that are on it: a program does.
void ChildProcess::signal(int number) const {
  if (status_) return;
  StartedProgram sender(std::wstring(L"console_event.exe ") + std::to_wstring(parts_->id) +
                            (number == SIGBREAK ? L" Break" : L" C"),
                        As::Self);
  EXPECT_EQ(sender.wait(std::chrono::seconds(20)), 0u);
}

pid_t ChildProcess::pid() const {
  return static_cast<pid_t>(parts_->id);
}

std::string own_program(const std::string& name) {
  return beside_test((name + ".exe").c_str()).string();
}
