#include "apps/ctl/password.h"

#include "apps/terminal/windows/console_mode.h"
#include "connection/secure.h"

namespace ctl {

namespace {

// Of UTF-16, with the line's end: more than the longest password, so that a line that doesn't fit
// is too long in any case.
constexpr DWORD LINE_MAX = 2'048;
static_assert(LINE_MAX > host_service::PASSWORD_MAX + 2);
constexpr wchar_t END_OF_FILE = 0x1A;  // Ctrl+Z

void say(const std::string& text) {
  std::fputs(text.c_str(), stderr);
  std::fflush(stderr);
}

// Wiped with its scope.
struct Line {
  ~Line() {
    lund_secure_wipe(wide, sizeof wide);
    lund_secure_wipe(bytes, sizeof bytes);
  }
  bool ended() const { return size > 0 && wide[size - 1] == L'\n'; }

  wchar_t wide[LINE_MAX];
  DWORD size = 0;
  char bytes[LINE_MAX * 3];  // at most, as UTF-8
};

class ConsolePasswords final : public PasswordSource {
 public:
  bool read(const std::string& prompt, Password* password) override {
    password->clear();
    say(prompt);
    Line line;
    do {
      if (!ReadConsoleW(console_.input(), line.wide, LINE_MAX, &line.size, nullptr) ||
          line.size == 0)
        return false;
      if (password->bytes().empty() && line.wide[0] == END_OF_FILE) return false;
      take(&line, password);
    } while (!line.ended());
    say("\n");
    return true;
  }
  bool blind() const override { return true; }

 private:
  static void take(Line* line, Password* password) {
    DWORD size = line->size;
    while (size > 0 && (line->wide[size - 1] == L'\n' || line->wide[size - 1] == L'\r')) --size;
    const int count =
        WideCharToMultiByte(CP_UTF8, 0, line->wide, static_cast<int>(size), line->bytes,
                            static_cast<int>(sizeof line->bytes), nullptr, nullptr);
    for (int i = 0; i < count; ++i) password->add(line->bytes[i]);
  }

  ConsoleMode console_{ENABLE_ECHO_INPUT};
};

}  // namespace

std::unique_ptr<PasswordSource> passwords_of_terminal() {
  if (!is_console(STD_INPUT_HANDLE)) return nullptr;
  return std::make_unique<ConsolePasswords>();
}

}  // namespace ctl
