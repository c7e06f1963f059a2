#include "control/linux/desktop_entry.h"

#include <string_view>

#include "control/linux/profile_text.h"

namespace {

constexpr const char* GROUP = "Desktop Entry";
// Inside double quotes these follow a backslash. What stands in a value has each of its backslashes
// doubled once more, since values have an escape of their own.
constexpr std::string_view QUOTED_SPECIALS = "\"`$\\";
// Outside of quotes none of these may stand.
constexpr std::string_view RESERVED = " \t\n\"'\\><~|&;$*?#()`";

struct Escape {
  char character;
  char letter;
};
constexpr Escape VALUE_ESCAPES[] = {{'\n', 'n'}, {'\t', 't'}, {'\r', 'r'}, {'\\', '\\'}};

std::string quoted_argument(std::string_view text) {
  std::string quoted = "\"";
  for (const char character : text) {
    if (QUOTED_SPECIALS.find(character) != std::string_view::npos) quoted += '\\';
    if (character == '%') quoted += '%';  // otherwise it begins a field code
    quoted += character;
  }
  return quoted + '"';
}

std::string escaped_value(std::string_view text) {
  std::string escaped;
  for (const char character : text) {
    char letter = 0;
    for (const Escape& escape : VALUE_ESCAPES)
      if (escape.character == character) letter = escape.letter;
    if (letter != 0) escaped += '\\';
    escaped += letter != 0 ? letter : character;
  }
  return escaped;
}

std::optional<std::string> unescaped_value(std::string_view value) {
  std::string text;
  for (std::size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\') {
      text += value[i];
      continue;
    }
    const char letter = ++i < value.size() ? value[i] : 0;
    char character = letter == 's' ? ' ' : 0;
    for (const Escape& escape : VALUE_ESCAPES)
      if (escape.letter == letter) character = escape.character;
    if (character == 0) return std::nullopt;
    text += character;
  }
  return text;
}

// The first argument, quoted or not.
std::optional<std::string> first_argument(std::string_view line) {
  std::string argument;
  const bool quoted = line.starts_with('"');
  std::size_t i = quoted ? 1 : 0;
  for (; i < line.size(); ++i) {
    char character = line[i];
    if (quoted ? character == '"' : character == ' ') return argument;
    if (quoted && character == '\\') {
      if (++i == line.size()) return std::nullopt;
      character = line[i];
    } else if (!quoted && RESERVED.find(character) != std::string_view::npos) {
      return std::nullopt;
    }
    if (character == '%' && (++i == line.size() || line[i] != '%')) return std::nullopt;
    argument += character;
  }
  return quoted || argument.empty() ? std::nullopt : std::optional(argument);
}

}  // namespace

std::optional<std::string> desktop_entry(const std::filesystem::path& program) {
  const std::string path = program.string();
  if (path.empty() || path.find('=') != std::string::npos) return std::nullopt;
  return "[Desktop Entry]\n"
         "Type=Application\n"
         "Version=1.5\n"
         "Name=Lunderhaze\n"
         "Comment=Lets paired devices reach this computer's screen\n"
         "Exec=" +
         escaped_value(quoted_argument(path)) + "\nTerminal=false\n";
}

std::optional<std::filesystem::path> entry_program(const std::string& entry) {
  const std::optional<std::string> value = profile_value(entry, GROUP, "Exec");
  const std::optional<std::string> line = value ? unescaped_value(*value) : std::nullopt;
  return line ? first_argument(*line) : std::nullopt;
}

// The latter is what the settings of some desktops write.
bool is_started(const std::string& entry) {
  return profile_value(entry, GROUP, "Hidden") != "true" &&
         profile_value(entry, GROUP, "X-GNOME-Autostart-enabled") != "false";
}
