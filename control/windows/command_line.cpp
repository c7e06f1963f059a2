#include "control/windows/command_line.h"

#include "control/windows/wide_text.h"

namespace {

// As CommandLineToArgvW reads it: backslashes count for themselves, but before a quote, where they
// count for half and an odd one makes the quote a letter.
std::wstring quoted(const std::wstring& word) {
  std::wstring text = L"\"";
  std::size_t backslashes = 0;
  for (const wchar_t letter : word) {
    if (letter == L'"') text.append(backslashes + 1, L'\\');
    backslashes = letter == L'\\' ? backslashes + 1 : 0;
    text += letter;
  }
  text.append(backslashes, L'\\');
  return text + L'"';
}

}  // namespace

std::wstring command_line_of(const std::vector<std::string>& words) {
  std::wstring line;
  for (const std::string& word : words) {
    if (!line.empty()) line += L' ';
    line += quoted(to_wide(word));
  }
  return line;
}
