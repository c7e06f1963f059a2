// A text file, whichever way the system ends lines.
#pragma once

#include "tests/support/temp_directory.h"

inline std::string file_text(const std::filesystem::path& path) {
  std::string text = file_content(path);
  std::erase(text, '\r');
  return text;
}
