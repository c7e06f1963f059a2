// A property that a fuzz target claims: its failure stops the run with a stack trace, in every
// build.
#pragma once

#include <cstdio>
#include <cstdlib>

inline void require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "broken property: %s\n", property);
  std::abort();
}
