// Programs on a desktop that copy and paste: xclip, which knows nothing of this project; and the X
// server's word on each change of the CLIPBOARD selection. One thread.
#pragma once

#include <memory>
#include <string>

#include "tests/support/child_process.h"
#include "tests/support/temp_directory.h"

// What a program that asks for this target is given; "xclip failed: ..." when that is nothing.
std::string xclip_paste(const std::string& display, const std::string& target = "UTF8_STRING");

class Xclip {
 public:
  explicit Xclip(const std::string& display);
  ~Xclip();  // nobody serves what it has copied any more
  Xclip(const Xclip&) = delete;
  Xclip& operator=(const Xclip&) = delete;

  // Returns once the server has told everybody. What was copied is served until the next copy.
  void copy(const std::string& content, const std::string& target = "UTF8_STRING");
  // Waits until the newest copy has been given away whole, this often, and whoever asked for it has
  // put away the window that it came to: a program then has it, whatever is copied next.
  bool given(int times = 1);
  void signal(int number) const { serving_->signal(number); }

  std::string paste(const std::string& target = "UTF8_STRING") const;
  // Waits until somebody else has put something there since the last copy or wait.
  bool changed();

 private:
  struct Watch;
  const std::string display_;
  TempDirectory directory_;
  std::unique_ptr<Watch> watch_;
  std::unique_ptr<ChildProcess> serving_;
};
