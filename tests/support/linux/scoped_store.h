// A store in either scope, for tests that damage it; in memory where there is a place for that,
// which spares the disk thousands of flushes. One at a time.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "tests/support/machine_store.h"

class ScopedStore {
 public:
  explicit ScopedStore(keystore::HostStoreScope scope) : scope_(scope) { restart(); }

  static bool possible(keystore::HostStoreScope scope) {
    return scope == keystore::User || MachineStore::possible();
  }

  keystore::HostStoreScope scope() const { return scope_; }
  std::filesystem::path path() const { return store_.path(); }
  std::filesystem::path operator/(const std::string& name) const { return store_ / name; }

  void restart() const { keystore::internal::reset_for_test(scope_, path()); }
  // As a new process: what is said, empty for success.
  std::string configure() const {
    if (scope_ == keystore::Machine) return store_.configure();
    restart();
    std::string error;
    return keystore::configureHostStore(scope_, &error) ? "" : error;
  }

  // What killed writers left.
  std::vector<std::filesystem::path> temporaries() const {
    std::vector<std::filesystem::path> found;
    if (!std::filesystem::exists(path())) return found;
    for (const auto& entry : std::filesystem::directory_iterator(path())) {
      if (entry.path().filename().string().find(".tmp-") != std::string::npos)
        found.push_back(entry.path());
    }
    return found;
  }

 private:
  static std::filesystem::path memory() {
    const char* const shared = "/dev/shm";
    return access(shared, W_OK | X_OK) == 0 ? shared : std::filesystem::temp_directory_path();
  }

  keystore::HostStoreScope scope_;
  MachineStore store_{memory()};
};

inline const char* scope_name(keystore::HostStoreScope scope) {
  return scope == keystore::User ? "User" : "Machine";
}
