// Has the compiler check the arguments of a function that takes a printf format, by the rules of
// the C library that it hands them on to: its arguments are those parameters' numbers.
#pragma once

#include <cstdio>

#if defined(__MINGW_PRINTF_FORMAT)
#define LUND_PRINTF_RULES __MINGW_PRINTF_FORMAT
#else
#define LUND_PRINTF_RULES printf
#endif
#define LUND_PRINTF(format_at, arguments_at) \
  [[gnu::format(LUND_PRINTF_RULES, format_at, arguments_at)]]
