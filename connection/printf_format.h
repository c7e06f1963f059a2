// Has the compiler check the arguments of a function that takes a printf format, by the rules of
// the C library that it hands them on to. It takes the numbers of its format and of the first
// argument behind it.
#pragma once

#include "printf_rules.h"  // the platform's

#define LUND_PRINTF(format_at, arguments_at) \
  [[gnu::format(LUND_PRINTF_RULES, format_at, arguments_at)]]
