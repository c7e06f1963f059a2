// A file that one process at a time holds locked, to be the only one of its kind. The lock ends
// with the process however that ends, so what a killed one left is told from what a live one holds.
// The file goes with an orderly end. One thread.
#pragma once

#include <filesystem>

#include "control/linux/descriptor.h"

class LockFile {
 public:
  enum class Result { Held, Busy, Failed };  // Failed: errno says why

  LockFile() = default;
  ~LockFile();
  LockFile(const LockFile&) = delete;
  LockFile& operator=(const LockFile&) = delete;

  Result acquire(const std::filesystem::path& path);  // once

 private:
  std::filesystem::path path_;
  Descriptor file_;
};
