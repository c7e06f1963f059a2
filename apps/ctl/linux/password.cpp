#include "apps/ctl/password.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <optional>

#include "apps/terminal/linux/borrowed_terminal.h"
#include "connection/secure.h"

namespace ctl {

namespace {

constexpr std::size_t LINE_MAX_BYTES = 4'096;  // that a terminal gives, n_tty(4)

void say(const std::string& text) {
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
}

class TerminalPasswords final : public PasswordSource {
 public:
  TerminalPasswords() {
    prctl(PR_SET_DUMPABLE, 0);  // Ctrl+\ leaves no core with what was typed
    for (const int number : {SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGABRT}) terminal_.end_on(number);
  }

  bool read(const std::string& prompt, Password* password) override {
    password->clear();
    if (taken_) say(prompt);  // for an earlier password
    for (;;) {
      switch (terminal_.wait(nullptr)) {
        case BorrowedTerminal::Event::Taken:
          taken_ = true;
          password->clear();
          say(prompt);
          break;
        case BorrowedTerminal::Event::Readable:
          if (const auto whole = read_typed(password)) return *whole;
          break;
        default:
          return false;
      }
    }
  }
  bool blind() const override { return true; }

 private:
  // Whether a line has come; nothing while it goes on.
  std::optional<bool> read_typed(Password* password) {
    char typed[LINE_MAX_BYTES];
    const ssize_t size = ::read(STDIN_FILENO, typed, sizeof typed);
    terminal_.note_read(size);
    std::optional<bool> whole;
    if (size == 0) whole = false;  // Ctrl+D on an empty line
    for (ssize_t i = 0; i < size; ++i) {
      if (typed[i] != '\n') {
        password->add(typed[i]);
      } else {
        whole = true;
      }
    }
    lund_secure_wipe(typed, sizeof typed);
    if (whole) say("\n");
    return whole;
  }

  BorrowedTerminal terminal_{ECHO};
  bool taken_ = false;
};

}  // namespace

std::unique_ptr<PasswordSource> passwords_of_terminal() {
  if (isatty(STDIN_FILENO) == 0) return nullptr;
  return std::make_unique<TerminalPasswords>();
}

}  // namespace ctl
