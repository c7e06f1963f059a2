// The package that this build made, and a Debian system to install it in: essential packages and
// what the package depends on. scripts/package-root makes that system; ctest runs it before.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tests/support/linux/machine_lab.h"
#include "tests/support/temp_directory.h"

const std::filesystem::path& package_file();
// What `dpkg-deb -f` says of it ("Depends").
std::string package_field(const std::string& name);

// Its files, unpacked beside the system.
class UnpackedPackage {
 public:
  UnpackedPackage();
  const std::filesystem::path& root() const { return directory_.path(); }
  // Paths as installed, of what lies in this directory ("/etc").
  std::vector<std::string> files(const std::string& directory) const;
  std::vector<std::string> programs() const;
  std::string read(const std::string& path) const;

 private:
  TempDirectory directory_;
};

std::vector<std::string> lines_of(const std::string& text);

// A Debian system that doesn't have the package yet. A test is skipped where there can be none.
class PackageTest : public testing::Test {
 protected:
  void SetUp() override;
  MachineLab& debian() { return *debian_; }

  // Fails the test unless it ends with 0; what it said, standard error included.
  std::string run(const std::vector<std::string>& arguments);
  std::string install();

  // Every file, directory and link of the system with type, mode, owner, size and target, but for
  // what dpkg and man-db write down for themselves.
  std::map<std::string, std::string> listing();

 private:
  std::optional<TempDirectory> directory_;  // the package, where the system sees it
  std::optional<MachineLab> debian_;
};
