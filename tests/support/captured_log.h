// While it lives, the process-wide log goes into a file of its own, whose lines a test can count.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "control/log.h"

class CapturedLog {
 public:
  CapturedLog() {
    static int serial = 0;
    directory_ = std::filesystem::temp_directory_path() /
                 ("lunderhaze-log-" + std::to_string(getpid()) + "-" + std::to_string(++serial));
    std::filesystem::create_directories(directory_);
    log_open(false, directory_);
  }
  ~CapturedLog() {
    log_close();
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  }
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
  std::filesystem::path directory_;
};
