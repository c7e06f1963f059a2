// The command line behind the first of its words, which is this program.
#pragma once

#include <winsock2.h>
// clang-format off
#include <windows.h>
// clang-format on

#include <cwchar>

inline wchar_t* rest_of_command_line() {
  wchar_t* at = GetCommandLineW();
  for (bool quoted = false; *at != L'\0' && (quoted || (*at != L' ' && *at != L'\t')); ++at)
    quoted ^= *at == L'"';
  return at + std::wcsspn(at, L" \t");
}
