// A standard stream whose bytes go through as they are. Where the C library leaves them alone
// anyway, it does nothing.
#pragma once

#include <cstdio>

// Before anything is read or written.
void make_binary(std::FILE* stream);
