#include "tests/support/temporary_store.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>

#include "control/log.h"

TemporaryStore::TemporaryStore() {
  std::string pattern =
      (std::filesystem::temp_directory_path() / "lunderhaze-test-XXXXXX").string();
  path_ = mkdtemp(pattern.data());
  for (const char* variable : {"XDG_CONFIG_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME"})
    setenv(variable, path_.c_str(), 1);
  log_open(false, path_);
}

TemporaryStore::~TemporaryStore() {
  log_close();
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

// A plain file where the store's directory should be: permissions would not stop root.
void TemporaryStore::break_store() {
  std::filesystem::remove_all(path_ / "lunderhaze");
  std::ofstream(path_ / "lunderhaze") << "in the way";
}

std::vector<std::string> TemporaryStore::log_lines() const {
  std::ifstream file(path_ / "host.log", std::ios::binary);
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(file, line)) {
    const std::size_t stamp_end = line.find("] ");
    if (stamp_end == line.npos || line.find("---- Lunderhaze") != line.npos) continue;
    while (!line.empty() && (line.back() == '\r' || line.back() == '\n')) line.pop_back();
    lines.push_back(line.substr(stamp_end + 2));
  }
  return lines;
}
