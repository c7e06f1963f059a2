#include "control/windows/wide_text.h"

#include <windows.h>

std::string to_utf8(std::wstring_view text) {
  const int count = static_cast<int>(text.size());
  const int size =
      WideCharToMultiByte(CP_UTF8, 0, text.data(), count, nullptr, 0, nullptr, nullptr);
  std::string bytes(static_cast<std::size_t>(size), '\0');
  WideCharToMultiByte(CP_UTF8, 0, text.data(), count, bytes.data(), size, nullptr, nullptr);
  return bytes;
}

std::wstring to_wide(std::string_view text) {
  const int size = static_cast<int>(text.size());
  const int count = MultiByteToWideChar(CP_UTF8, 0, text.data(), size, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(count), L'\0');
  MultiByteToWideChar(CP_UTF8, 0, text.data(), size, wide.data(), count);
  return wide;
}
