#include "apps/lunderhaze/terminal.h"

#include "apps/terminal/windows/console_mode.h"

namespace {

constexpr WORD LAST_ASCII = 0x7F;

class ConsoleTerminal final : public Terminal {
 public:
  std::optional<char> wait(WakeEvent& wake) override {
    const HANDLE handles[] = {reinterpret_cast<HANDLE>(wake.native_handle()), console_.input()};
    for (;;) {
      if (repeats_ > 0) {
        --repeats_;
        return key_;
      }
      // Without a console there is nothing to wait for but the event.
      const DWORD count = gone_ ? 1 : 2;
      if (WaitForMultipleObjects(count, handles, FALSE, INFINITE) == WAIT_OBJECT_0)
        return std::nullopt;
      read_key();
    }
  }

 private:
  // The console also tells of keys that are released, of its mouse, its size and its menu.
  void read_key() {
    INPUT_RECORD record;
    DWORD count = 0;
    gone_ = !ReadConsoleInputW(console_.input(), &record, 1, &count);
    if (gone_ || count == 0 || record.EventType != KEY_EVENT) return;
    const KEY_EVENT_RECORD& key = record.Event.KeyEvent;
    const wchar_t character = key.uChar.UnicodeChar;
    if (!key.bKeyDown || character == 0 || character > LAST_ASCII) return;
    key_ = static_cast<char>(character);
    repeats_ = key.wRepeatCount;
  }

  ConsoleMode console_{ENABLE_LINE_INPUT | ENABLE_ECHO_INPUT};
  char key_ = 0;
  WORD repeats_ = 0;  // of the key that are still to be handed out
  bool gone_ = false;
};

}  // namespace

// A console that closes asks the program to end, as it is asked otherwise.
std::unique_ptr<Terminal> Terminal::open(void (*)(int)) {
  if (!is_console(STD_INPUT_HANDLE) || !is_console(STD_OUTPUT_HANDLE)) return nullptr;
  return std::make_unique<ConsoleTerminal>();
}
