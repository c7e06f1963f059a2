// Processes are held by pidfds, paths are judged by descriptors.
//
// A pidfd is one process's for good. /proc knows processes by their ids alone, so what was read
// there counts only if the process of the pidfd is still alive after the reading: until then the id
// was its own.
//
// A path is opened component by component, each below the one before and never through a link; the
// test judges the very file that was opened at the end. What remains is that the caller opens the
// path once more: whoever may rename things in a directory on the way can put another in its place
// in between. Where the ancestors are protected, that is the system alone, so callers ask for both.
#include "control/security.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>

#include "control/linux/descriptor.h"
#include "control/linux/display_session.h"
#include "control/linux/path_trust.h"
#include "control/security_platform.h"

namespace host_service {

namespace {

// More than a process's arguments and environment may take (a quarter of an 8 MiB stack).
constexpr std::size_t PROC_FILE_MAX = 4'194'304;

// A file of /proc/<id>/, of unknown size, whole.
std::optional<std::string> proc_file(std::uint32_t id, const char* name) {
  const std::string path = "/proc/" + std::to_string(id) + "/" + name;
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.get() < 0) return std::nullopt;
  std::string content;
  char bytes[4'096];
  for (;;) {
    const ssize_t size = read(file.get(), bytes, sizeof bytes);
    if (size < 0 && errno == EINTR) continue;
    if (size < 0 || content.size() > PROC_FILE_MAX) return std::nullopt;
    if (size == 0) return content;
    content.append(bytes, static_cast<std::size_t>(size));
  }
}

struct Users {
  uid_t real, effective;
};

// Of "Uid: real effective saved file-system", proc_pid_status(5).
std::optional<Users> users_of(const Process& process) {
  const std::optional<std::string> status = proc_file(process.id(), "status");
  if (!status) return std::nullopt;
  constexpr std::string_view LABEL = "\nUid:";
  const std::size_t at = status->find(LABEL);
  if (at == std::string::npos) return std::nullopt;
  std::istringstream line(status->substr(at + LABEL.size()));
  Users users{};
  if (!(line >> users.real >> users.effective) || !process.alive()) return std::nullopt;
  return users;
}

// The number of the session that the process's environment, as it was started with, names.
std::optional<std::uint32_t> session_of(const Process& process) {
  if (process.id() == static_cast<std::uint32_t>(getpid())) {
    const char* display = std::getenv("DISPLAY");
    return display != nullptr ? session_of_display(display) : 0;
  }
  const std::optional<std::string> environment = proc_file(process.id(), "environ");
  if (!environment || !process.alive()) return std::nullopt;
  constexpr std::string_view VARIABLE = "DISPLAY=";
  std::string_view rest = *environment;
  while (!rest.empty()) {
    const std::string_view entry = rest.substr(0, rest.find('\0'));
    if (entry.starts_with(VARIABLE)) return session_of_display(entry.substr(VARIABLE.size()));
    rest.remove_prefix(std::min(rest.size(), entry.size() + 1));
  }
  return 0;
}

enum class Walk { Found, LastMissing, Refused };

Walk open_without_links(const std::filesystem::path& path, Descriptor* opened) {
  if (!path.is_absolute()) return Walk::Refused;
  constexpr int FLAGS = O_PATH | O_NOFOLLOW | O_CLOEXEC;
  Descriptor at(open("/", FLAGS));
  const std::filesystem::path relative = path.relative_path();
  for (auto name = relative.begin(); name != relative.end(); ++name) {
    if (name->empty()) continue;  // behind a closing slash
    Descriptor next(openat(at.get(), name->c_str(), FLAGS));
    if (next.get() < 0) {
      const bool last = std::next(name) == relative.end();
      return errno == ENOENT && last ? Walk::LastMissing : Walk::Refused;
    }
    struct stat status {};
    if (fstat(next.get(), &status) != 0 || S_ISLNK(status.st_mode)) return Walk::Refused;
    at = std::move(next);
  }
  if (at.get() < 0) return Walk::Refused;
  if (opened != nullptr) *opened = std::move(at);
  return Walk::Found;
}

// Nothing when it can't be told.
std::optional<bool> has_acl(int file) {
  // A descriptor without a right to read is good for this only by its name in /proc.
  const std::string name = "/proc/self/fd/" + std::to_string(file);
  for (const char* list : {"system.posix_acl_access", "system.posix_acl_default"}) {
    if (getxattr(name.c_str(), list, nullptr, 0) >= 0) return true;
    if (errno != ENODATA && errno != EOPNOTSUPP) return std::nullopt;
  }
  return false;
}

}  // namespace

// ---- Processes

Process Process::current() {
  return open(static_cast<std::uint32_t>(getpid()));
}

Process Process::open(std::uint32_t id) {
  const long opened =
      syscall(SYS_pidfd_open, static_cast<pid_t>(id), 0);  // close-on-exec by itself
  return opened >= 0 ? adopt(opened, id) : Process();
}

bool Process::alive() const {
  if (handle_ < 0) return false;
  pollfd polled{static_cast<int>(handle_), POLLIN, 0};
  for (;;) {
    const int count = poll(&polled, 1, 0);
    if (count >= 0 || errno != EINTR) return count == 0;
  }
}

bool system_process(const Process& process, std::uint32_t* session) {
  const std::optional<Users> users = users_of(process);
  if (!users || users->real != 0 || users->effective != 0) return false;
  if (session == nullptr) return true;
  const std::optional<std::uint32_t> number = session_of(process);
  if (number) *session = *number;
  return number.has_value();
}

bool elevated_admin_process(const Process& process) {
  const std::optional<Users> users = users_of(process);
  return users && users->effective == 0;
}

// ---- Paths

bool no_reparse_components(const std::filesystem::path& path) {
  return open_without_links(path, nullptr) != Walk::Refused;
}

bool check_path(const std::filesystem::path& path, PathTest test) {
  Descriptor file;
  struct stat status {};
  if (open_without_links(path, &file) != Walk::Found || fstat(file.get(), &status) != 0)
    return false;
  const std::optional<bool> acl = has_acl(file.get());
  return acl && trusted({status.st_uid, status.st_mode, *acl}, test);
}

namespace security_platform {

const std::intptr_t NO_PROCESS = -1;

void close_process(std::intptr_t handle) {
  close(static_cast<int>(handle));
}

bool make_private_directory(const std::filesystem::path& path) {
  Descriptor parent;
  return open_without_links(path.parent_path(), &parent) == Walk::Found &&
         (mkdirat(parent.get(), path.filename().c_str(), S_IRWXU) == 0 || errno == EEXIST);
}

}  // namespace security_platform

}  // namespace host_service
