// Whom this process may trust: other processes, and paths on the disk. Results only, no words. The
// design assumes a hostile local user: names can be guessed, files swapped through links, process
// ids reused, so whoever relies on an answer asks again at each use. Re-entrant, no state.
//
// "The system" is LocalSystem on Windows, user id 0 on Linux. A graphical session's number is the
// terminal session's on Windows; on Linux the X display's number + 1, 0 without DISPLAY.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>

namespace host_service {

// A reference to a process that stays that process's own: it never passes to a later one with the
// same id. Movable, one thread at a time.
class Process {
 public:
  static Process current();
  static Process open(std::uint32_t id);  // empty when there is none, or none that may be asked
  // Takes over the platform's handle of the process `id`: a pidfd, a process handle.
  static Process adopt(std::intptr_t handle, std::uint32_t id);

  Process();
  ~Process();
  Process(Process&& other) noexcept;
  Process& operator=(Process&& other) noexcept;

  explicit operator bool() const;  // refers to one, alive or not
  std::uint32_t id() const;        // 0 without one
  bool alive() const;
  // For a platform's own wait: readable (Linux) or signalled (Windows) once it has ended.
  std::intptr_t native_handle() const;

 private:
  std::intptr_t handle_;  // the platform's, or its NO_PROCESS
  std::uint32_t id_ = 0;
};

// The process is the system's own and alive; gives its session's number when `session` is set.
bool system_process(const Process& process, std::uint32_t* session);
bool elevated_admin_process(const Process& process);

// Absolute, and no component of it is a symbolic link or junction. The last component may be
// missing.
bool no_reparse_components(const std::filesystem::path& path);

enum class PathTest : int {
  Private = 0,    // only the system and administrators can reach it
  Protected = 1,  // nobody else can change it
  Ancestor = 2,   // nobody else can rename or re-own what lies in it
};
bool check_path(const std::filesystem::path& path, PathTest test);
bool protected_path(const std::filesystem::path& path, bool private_path);
// All directories above it, by the Ancestor test; not the path itself.
bool protected_ancestors(const std::filesystem::path& path);

// Makes it where it is missing; false when what is there then isn't private.
bool create_private_directory(const std::filesystem::path& path);

}  // namespace host_service
