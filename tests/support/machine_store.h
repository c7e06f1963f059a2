// A machine store of a test's own, in a fresh temporary directory that goes with it: as the real
// one, a private directory in a private directory. Only where the test is the system's own process.
#pragma once

#include <filesystem>
#include <string>

#include "tests/support/temp_directory.h"

class MachineStore {
 public:
  static bool possible();
  static constexpr const char* WHY_NOT = "only the system's own process may have a machine store";

  // Neither made nor configured yet.
  explicit MachineStore(
      const std::filesystem::path& place = std::filesystem::temp_directory_path());
  ~MachineStore();
  MachineStore(const MachineStore&) = delete;
  MachineStore& operator=(const MachineStore&) = delete;

  std::filesystem::path path() const { return parent_ / "host"; }
  std::filesystem::path parent() const { return parent_.path(); }
  std::filesystem::path operator/(const std::string& name) const { return path() / name; }

  void restart() const;           // as a new process, in the machine scope and not configured yet
  std::string configure() const;  // the same, then configured: what is said, empty for success

 private:
  TempDirectory parent_;
};

// Makes what is there, a file or a directory, the system's alone.
void make_private(const std::filesystem::path& path);

inline void write_private_text(const std::filesystem::path& path, const std::string& content) {
  write_file(path, content);
  make_private(path);
}

// Why the process's store failed; empty while it is healthy.
std::string store_failure();
