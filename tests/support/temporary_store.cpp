#include "tests/support/temporary_store.h"

#include "control/keystore_internal.h"
#include "control/log.h"

TemporaryStore::TemporaryStore() {
  keystore::internal::reset_for_test(keystore::User, directory_ / "store");
  log_open(false, directory_.path());
}

TemporaryStore::~TemporaryStore() {
  log_close();
  keystore::internal::reset_for_test(keystore::User, {});
}

// A plain file where the store's directory should be: permissions would not stop root.
void TemporaryStore::break_store() {
  std::filesystem::remove_all(directory_ / "store");
  write_file(directory_ / "store", "in the way");
}

void TemporaryStore::break_machine_store() {
  break_store();
  keystore::internal::reset_for_test(keystore::Machine, directory_ / "store");
}

std::vector<std::string> TemporaryStore::log_lines() const {
  std::ifstream file(directory_ / "host.log", std::ios::binary);
  std::vector<std::string> lines;
  std::string line;
  while (std::getline(file, line)) {
    const std::size_t stamp_end = line.find("] ");
    if (stamp_end == line.npos || line.find("---- Lunderhaze") != line.npos) continue;
    while (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line.substr(stamp_end + 2));
  }
  return lines;
}
