// Programs of the system that Wine itself runs on, X programs first of all: to a Windows program
// they are what no Windows program can be. One thread.
#pragma once

#include <optional>
#include <string>

#include "tests/support/temp_directory.h"

bool under_wine();  // what is below fails on any other Windows

class NativeShell {
 public:
  // Where commands run, and what they and the test exchange files in.
  const TempDirectory& directory() const { return directory_; }

  // Runs commands to their end; their exit status and output, or nothing when they don't end.
  struct Result {
    int status;
    std::string output;
  };
  std::optional<Result> run(const std::string& commands);

 private:
  TempDirectory directory_;
};
