// mingw-w64 has two sets of printf functions, of C99 and of the system's own library; its headers
// say which one a program gets.
#pragma once

#include <cstdio>

#define LUND_PRINTF_RULES __MINGW_PRINTF_FORMAT
