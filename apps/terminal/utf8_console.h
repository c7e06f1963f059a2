// What a program prints is UTF-8, and a console shows it as such while this object lives. Where a
// console always does, it does nothing.
#pragma once

class Utf8Console {
 public:
  Utf8Console();
  ~Utf8Console();
  Utf8Console(const Utf8Console&) = delete;
  Utf8Console& operator=(const Utf8Console&) = delete;

 private:
  const unsigned former_;  // code page
};
