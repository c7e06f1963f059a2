#include "control/linux/run_to_end.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <sstream>

#include "control/linux/deadline.h"
#include "control/linux/descriptor.h"

namespace {

constexpr std::size_t OUTPUT_MAX_BYTES = 256 * 1024;
constexpr const char* ADMINISTRATION = "/usr/local/sbin:/usr/sbin:/sbin";

bool is_program(const std::filesystem::path& path) {
  std::error_code error;
  return std::filesystem::is_regular_file(path, error) && access(path.c_str(), X_OK) == 0;
}

std::vector<std::string> environment_in_c() {
  std::vector<std::string> variables{"LC_ALL=C"};
  for (char** variable = environ; *variable != nullptr; ++variable) {
    const std::string text = *variable;
    if (!text.starts_with("LC_ALL=") && !text.starts_with("LANGUAGE=")) variables.push_back(text);
  }
  return variables;
}

std::vector<char*> pointers(std::vector<std::string>& texts) {
  std::vector<char*> all;
  all.reserve(texts.size() + 1);
  for (std::string& text : texts) all.push_back(text.data());
  all.push_back(nullptr);
  return all;
}

// How a program of ours is to start, whatever this process does with signals.
class Attributes {
 public:
  Attributes() {
    posix_spawnattr_init(&value_);
    posix_spawnattr_setflags(
        &value_, POSIX_SPAWN_SETPGROUP | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    posix_spawnattr_setpgroup(&value_, 0);
    sigset_t signals;
    sigfillset(&signals);
    posix_spawnattr_setsigdefault(&value_, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&value_, &signals);
  }
  ~Attributes() { posix_spawnattr_destroy(&value_); }
  Attributes(const Attributes&) = delete;
  Attributes& operator=(const Attributes&) = delete;
  const posix_spawnattr_t* get() const { return &value_; }

 private:
  posix_spawnattr_t value_{};
};

class Streams {
 public:
  explicit Streams(int output) {
    posix_spawn_file_actions_init(&value_);
    posix_spawn_file_actions_addopen(&value_, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&value_, output, STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&value_, output, STDERR_FILENO);
  }
  ~Streams() { posix_spawn_file_actions_destroy(&value_); }
  Streams(const Streams&) = delete;
  Streams& operator=(const Streams&) = delete;
  const posix_spawn_file_actions_t* get() const { return &value_; }

 private:
  posix_spawn_file_actions_t value_{};
};

// What stands in the pipe now.
void take_output(int pipe, std::string* output) {
  char bytes[4'096];
  for (ssize_t size = 0; (size = read(pipe, bytes, sizeof bytes)) > 0;) {
    const auto room = OUTPUT_MAX_BYTES - output->size();
    output->append(bytes, std::min(room, static_cast<std::size_t>(size)));
  }
}

// The end of the program, not that of its output, which a child of its own may hold open.
bool wait_for_end(int process, int pipe, std::uint64_t deadline_us, std::string* output) {
  bool open = true;
  for (;;) {
    pollfd polled[] = {{process, POLLIN, 0}, {open ? pipe : -1, POLLIN, 0}};
    const timespec left = time_left(deadline_us);
    const int count = ppoll(polled, 2, &left, nullptr);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    take_output(pipe, output);
    if (polled[0].revents != 0) return true;
    open = (polled[1].revents & POLLHUP) == 0;
  }
}

}  // namespace

std::filesystem::path find_program(const std::string& name) {
  if (name.find('/') != std::string::npos) return is_program(name) ? name : std::string();
  const char* const path = std::getenv("PATH");
  std::istringstream directories(std::string(path != nullptr ? path : "") + ":" + ADMINISTRATION);
  for (std::string directory; std::getline(directories, directory, ':');) {
    if (!directory.starts_with('/')) continue;
    std::filesystem::path program = std::filesystem::path(directory) / name;
    if (is_program(program)) return program;
  }
  return {};
}

ProgramEnd run_to_end(const std::vector<std::string>& arguments, std::uint32_t timeout_ms) {
  ProgramEnd end;
  const std::filesystem::path program = find_program(arguments.at(0));
  if (program.empty()) {
    end.how = ProgramEnd::How::NotFound;
    return end;
  }
  const std::uint64_t deadline_us = lund_now_us() + std::uint64_t{timeout_ms} * 1'000;
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) return end;
  const Descriptor output(ends[0]);
  fcntl(output.get(), F_SETFL, O_NONBLOCK);
  pid_t pid = -1;
  {
    const Descriptor input(ends[1]);
    std::vector<std::string> words = arguments;
    std::vector<std::string> variables = environment_in_c();
    if (posix_spawn(&pid, program.c_str(), Streams(input.get()).get(), Attributes().get(),
                    pointers(words).data(), pointers(variables).data()) != 0)
      return end;
  }
  // Not by its own header, which glibc 2.36 has for C alone.
  const Descriptor process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
  const bool ended =
      process.get() >= 0 && wait_for_end(process.get(), output.get(), deadline_us, &end.output);
  if (!ended) kill(-pid, SIGKILL);
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  end.how = !ended              ? ProgramEnd::How::TimedOut
            : WIFEXITED(status) ? ProgramEnd::How::Exited
                                : ProgramEnd::How::Signalled;
  end.status = WIFEXITED(status) ? WEXITSTATUS(status) : 0;
  return end;
}
