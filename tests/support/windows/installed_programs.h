// The programs of the machine as an administrator installs them: in a directory of their own, with
// the machine's store beside them for as long as this lives. They are the product's own sources,
// linked so that what lies in a test's directory counts as private, as Wine can't say whose a path
// is. Only under Wine: the place of the store is the machine's. One thread.
#pragma once

#include <filesystem>
#include <string>

#include "tests/support/temp_directory.h"

class InstalledPrograms {
 public:
  static bool possible();

  InstalledPrograms();
  ~InstalledPrograms();
  InstalledPrograms(const InstalledPrograms&) = delete;
  InstalledPrograms& operator=(const InstalledPrograms&) = delete;

  std::filesystem::path operator/(const std::string& name) const { return programs() / name; }
  std::filesystem::path stored(const std::string& name) const;

 private:
  std::filesystem::path programs() const { return directory_ / "Lunderhaze"; }

  const TempDirectory directory_{"C:\\"};
};
