// What a Linux test changes of the process around it, put back at its end: an environment variable,
// the effective user, a mount.
#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>

class Variable {
 public:
  Variable(const char* name, const char* value) : name_(name) {
    if (const char* former = std::getenv(name)) former_ = former;
    set(value);
  }
  ~Variable() { set(former_ ? former_->c_str() : nullptr); }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;

 private:
  void set(const char* value) {
    if (value != nullptr) {
      setenv(name_, value, 1);
    } else {
      unsetenv(name_);
    }
  }
  const char* name_;
  std::optional<std::string> former_;
};

// Mounts are seen by this process alone: it gets a mount namespace of its own at the first one.
// Only where that is allowed, which `ok` tells.
class Mount {
 public:
  static Mount tmpfs(const std::filesystem::path& target, const std::string& options) {
    return Mount("tmpfs", target, "tmpfs", 0, options.c_str());
  }
  static Mount file_over(const std::filesystem::path& source, const std::filesystem::path& target) {
    return Mount(source.c_str(), target, nullptr, MS_BIND, nullptr);
  }
  static Mount read_only(const std::filesystem::path& target) {
    return Mount(target.c_str(), target, nullptr, MS_BIND | MS_RDONLY, nullptr);
  }
  ~Mount() {
    if (mounted_) umount2(target_.c_str(), MNT_DETACH);
  }
  Mount(const Mount&) = delete;
  Mount& operator=(const Mount&) = delete;
  bool ok() const { return ok_; }

 private:
  Mount(const char* source, std::filesystem::path target, const char* type, unsigned long flags,
        const char* options)
      : target_(std::move(target)) {
    mounted_ = have_namespace() && mount(source, target_.c_str(), type, flags, options) == 0;
    // A bind mount takes its flags only when it is remounted.
    const bool remounts = (flags & MS_RDONLY) != 0;
    ok_ = mounted_ &&
          (!remounts || mount(nullptr, target_.c_str(), nullptr, MS_REMOUNT | flags, nullptr) == 0);
  }
  static bool have_namespace() {
    static const bool have = unshare(CLONE_NEWNS) == 0 &&
                             mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    return have;
  }

  std::filesystem::path target_;
  bool mounted_ = false;
  bool ok_ = false;
};
