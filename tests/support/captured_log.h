// While it lives, the process-wide log goes into a file of its own, whose lines a test can count.
#pragma once

#include <fstream>
#include <sstream>
#include <string>

#include "control/log.h"
#include "tests/support/temp_directory.h"

class CapturedLog {
 public:
  CapturedLog() { log_open(false, directory_.path()); }
  ~CapturedLog() { log_close(); }
  CapturedLog(const CapturedLog&) = delete;
  CapturedLog& operator=(const CapturedLog&) = delete;

  std::string text() const {
    std::ostringstream out;
    out << std::ifstream(log_file_path()).rdbuf();
    return out.str();
  }
  int count(const std::string& part) const {
    int found = 0;
    std::istringstream lines(text());
    for (std::string line; std::getline(lines, line);) {
      if (line.find(part) != std::string::npos) ++found;
    }
    return found;
  }

 private:
  TempDirectory directory_;
};
