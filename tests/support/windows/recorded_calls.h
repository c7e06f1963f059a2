// What functions that stand before the system's are asked while one of these lives, and which of
// them are to fail. A test has one at a time; the stand-ins may be called on any thread, and are
// told of nothing while there is none.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "control/windows/handles.h"

class RecordedCalls {
 public:
  static constexpr int ALWAYS = -1;

  RecordedCalls();
  ~RecordedCalls();
  RecordedCalls(const RecordedCalls&) = delete;
  RecordedCalls& operator=(const RecordedCalls&) = delete;

  // The next calls that begin so fail, with this as the system's error.
  void fail(const std::string& beginning, DWORD error, int times = ALWAYS);
  // Nothing fails any more.
  void let_pass();
  // What was asked since the last time.
  std::vector<std::string> take();

  // A stand-in's: true when it is to fail, with the error set.
  static bool refuse(const std::string& call);
};

// How many of the calls begin so.
std::ptrdiff_t count_calls(const std::vector<std::string>& calls, const std::string& beginning);

// The system's own function, of the type of what stands for it.
template <class Function>
Function* system_function(const wchar_t* library, const char* name, Function*) {
  return reinterpret_cast<Function*>(
      reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(library), name)));
}
