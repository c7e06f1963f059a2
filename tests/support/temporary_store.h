// A store of the test's own: while it lives, the user's directories (and so the host's store and
// log) lie in a fresh temporary directory, which goes with it.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

class TemporaryStore {
 public:
  TemporaryStore();
  ~TemporaryStore();
  TemporaryStore(const TemporaryStore&) = delete;
  TemporaryStore& operator=(const TemporaryStore&) = delete;

  const std::filesystem::path& path() const { return path_; }
  // Makes every later write into the store fail.
  void break_store();
  // The log's lines without their time stamps, in order; the banner is not among them.
  std::vector<std::string> log_lines() const;

 private:
  std::filesystem::path path_;
};
