// A password on its way from whoever types it to the service.
#pragma once

#include <array>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>

#include "control/ipc_protocol.h"

namespace ctl {

// At most PASSWORD_MAX bytes, which never move and are wiped with their scope.
class Password {
 public:
  Password() = default;
  ~Password() { clear(); }
  Password(const Password&) = delete;
  Password& operator=(const Password&) = delete;

  void add(char byte);
  void clear();
  std::string_view bytes() const { return {bytes_.data(), size_}; }
  bool too_long() const { return too_long_; }  // some bytes had no room

 private:
  std::array<char, host_service::PASSWORD_MAX> bytes_{};
  std::size_t size_ = 0;
  bool too_long_ = false;
};

// Where passwords come from, a line each.
class PasswordSource {
 public:
  virtual ~PasswordSource() = default;
  // Asks for one, or takes the next line where nobody is asked; without its line end. False when
  // the input ends before a line.
  virtual bool read(const std::string& prompt, Password* password) = 0;
  // Somebody types without seeing what, and so should twice.
  virtual bool blind() const = 0;
};

// Byte by byte: no buffer of the C library's keeps what was read.
std::unique_ptr<PasswordSource> passwords_of(std::FILE* input);

// The terminal on standard input, without an echo from the first prompt to the object's end; the
// prompts go to standard error. Null where there is no terminal.
std::unique_ptr<PasswordSource> passwords_of_terminal();

}  // namespace ctl
