// What a program prints is UTF-8, and a console shows it as such while this object lives; one at a
// time. Where a console always does, it does nothing. On a console both streams are buffered
// meanwhile: whoever prints a part of what is to be seen, and goes on, flushes the stream.
#pragma once

class Utf8Console {
 public:
  Utf8Console();
  ~Utf8Console();  // NOLINT(performance-trivially-destructible): the platform's
  Utf8Console(const Utf8Console&) = delete;
  Utf8Console& operator=(const Utf8Console&) = delete;
};
