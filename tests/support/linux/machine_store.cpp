#include "tests/support/machine_store.h"

#include <unistd.h>

bool MachineStore::possible() {
  return geteuid() == 0;
}

void make_private(const std::filesystem::path& path) {
  using std::filesystem::perms;
  std::filesystem::permissions(path, std::filesystem::is_directory(path)
                                         ? perms::owner_all
                                         : perms::owner_read | perms::owner_write);
}
