// A store and a log of the test's own: while it lives, both lie in a fresh temporary directory,
// which goes with it.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/temp_directory.h"

class TemporaryStore {
 public:
  TemporaryStore();
  ~TemporaryStore();
  TemporaryStore(const TemporaryStore&) = delete;
  TemporaryStore& operator=(const TemporaryStore&) = delete;

  void break_store();          // every later write fails
  void break_machine_store();  // the same, and the store is the machine's from now on
  // The log's lines without their time stamps, in order; the banner is not among them.
  std::vector<std::string> log_lines() const;

 private:
  TempDirectory directory_;
};
