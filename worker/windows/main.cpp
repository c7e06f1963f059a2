#include "worker/main.h"
#include "control/windows/wide_text.h"

// In UTF-16 throughout: a code page would make digits of what only looks like them.
int wmain(int argc, wchar_t** argv) {
  std::vector<std::string> arguments;
  for (int i = 1; i < argc; ++i) arguments.push_back(to_utf8(argv[i]));
  return worker_main(arguments);
}
