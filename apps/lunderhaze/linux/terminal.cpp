#include "apps/lunderhaze/terminal.h"

#include <unistd.h>

#include <string>
#include <string_view>

#include "apps/terminal/linux/borrowed_terminal.h"

namespace {

constexpr char ESCAPE = 0x1B;

// Leaves out what keys without a character of their own send (ECMA-48): a control sequence up to
// its final byte, or the escape character and one or two more.
std::string without_sequences(std::string_view bytes) {
  std::string keys;
  for (std::size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] != ESCAPE) {
      keys += bytes[i];
      continue;
    }
    const char introducer = ++i < bytes.size() ? bytes[i] : 0;
    if (introducer == 'O') ++i;
    if (introducer == '[')
      while (++i < bytes.size() && (bytes[i] < '@' || bytes[i] > '~')) {
      }
  }
  return keys;
}

class SystemTerminal final : public Terminal {
 public:
  explicit SystemTerminal(void (*hang_up)(int)) {
    terminal_.handle(SIGHUP, hang_up);
    terminal_.end_on(SIGQUIT);
    terminal_.end_on(SIGABRT);
  }

  std::optional<char> wait(WakeEvent& wake) override {
    for (;;) {
      if (!typed_.empty()) {
        const char key = typed_.front();
        typed_.erase(0, 1);
        return key;
      }
      const BorrowedTerminal::Event event = terminal_.wait(&wake);
      if (event == BorrowedTerminal::Event::Woken) return std::nullopt;
      if (event == BorrowedTerminal::Event::Readable) read_keys();
    }
  }

 private:
  void read_keys() {
    char bytes[64];
    const ssize_t size = read(STDIN_FILENO, bytes, sizeof bytes);
    if (size > 0) typed_ = without_sequences({bytes, static_cast<std::size_t>(size)});
    terminal_.note_read(size);
  }

  BorrowedTerminal terminal_{ICANON | ECHO};
  std::string typed_;
};

}  // namespace

std::unique_ptr<Terminal> Terminal::open(void (*hang_up)(int)) {
  if (isatty(STDIN_FILENO) == 0 || isatty(STDOUT_FILENO) == 0) return nullptr;
  return std::make_unique<SystemTerminal>(hang_up);
}
