// Names for pipes of a test's own.
#pragma once

#include <string>

#include "tests/support/temp_directory.h"

class PipePlace {
 public:
  static bool possible();  // this process may serve pipes
  static constexpr const char* WHY_NOT = "only the system's own process may serve pipes";

  PipePlace();
  std::string operator/(const std::string& name) const;
  // Where the names are those of files; elsewhere an empty one.
  const TempDirectory& directory() const { return directory_; }

 private:
  TempDirectory directory_;
};
