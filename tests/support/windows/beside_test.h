// Programs that lie beside the test's own.
#pragma once

#include <filesystem>

#include "control/sysinfo.h"

inline std::filesystem::path beside_test(const char* name) {
  return exe_path().parent_path() / name;
}
