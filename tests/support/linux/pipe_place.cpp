#include "tests/support/pipe_place.h"

#include <unistd.h>

bool PipePlace::possible() {
  return geteuid() == 0;
}

PipePlace::PipePlace() {
  std::filesystem::permissions(directory_.path(), std::filesystem::perms::owner_all);
}

std::string PipePlace::operator/(const std::string& name) const {
  return directory_ / "run" / name;
}
