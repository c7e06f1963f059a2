#include "control/security.h"

#include <utility>

#include "control/security_platform.h"

namespace host_service {

// ---- Processes

using security_platform::NO_PROCESS;

Process::Process() : handle_(NO_PROCESS) {}
Process::~Process() {
  if (*this) security_platform::close_process(handle_);
}
Process::Process(Process&& other) noexcept
    : handle_(std::exchange(other.handle_, NO_PROCESS)), id_(std::exchange(other.id_, 0)) {}
Process& Process::operator=(Process&& other) noexcept {
  std::swap(handle_, other.handle_);
  std::swap(id_, other.id_);
  return *this;
}

Process Process::adopt(std::intptr_t handle, std::uint32_t id) {
  Process process;
  process.handle_ = handle;
  process.id_ = id;
  return process;
}

Process::operator bool() const {
  return handle_ != NO_PROCESS;
}
std::uint32_t Process::id() const {
  return id_;
}
std::intptr_t Process::native_handle() const {
  return handle_;
}

// ---- Paths

bool protected_path(const std::filesystem::path& path, bool private_path) {
  return check_path(path, private_path ? PathTest::Private : PathTest::Protected);
}

// From the root down: once a directory has passed, only the system can put something else in the
// place of the next one, so the answers still hold together when the last is given.
bool protected_ancestors(const std::filesystem::path& path) {
  if (!no_reparse_components(path)) return false;
  std::filesystem::path ancestor = path.root_path();
  for (const std::filesystem::path& name : path.relative_path()) {
    if (!check_path(ancestor, PathTest::Ancestor)) return false;
    ancestor /= name;
  }
  return true;
}

bool create_private_directory(const std::filesystem::path& path) {
  return no_reparse_components(path) && security_platform::make_private_directory(path) &&
         check_path(path, PathTest::Private);
}

}  // namespace host_service
