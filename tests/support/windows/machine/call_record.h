// How a function that stands before one of the system's tells of its call, and hears what is to
// become of it: for the files beside this one, which define such functions. The linker takes their
// places (__imp_NAME), through which a call into a DLL goes, ahead of those of the import
// libraries.
#pragma once

#include <optional>
#include <string>

#include "control/windows/handles.h"
#include "tests/support/windows/machine/system_calls.h"

namespace call_record {

// What a test has said is to become of a call that isn't passed on.
struct Fate {
  bool fails = false;  // the last error is set
  std::optional<unsigned long> answer;
};
Fate tell(SystemCalls::Of kind, const std::string& name, const std::string& arguments);

std::string hex(unsigned long value);
std::string text(const wchar_t* wide);  // "none" for null
std::string descriptor_of(const SECURITY_ATTRIBUTES* attributes);

// The system's own, by the type of what stands for it here.
template <class Function>
Function* real(const wchar_t* library, const char* name, Function*) {
  return reinterpret_cast<Function*>(
      reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(library), name)));
}

}  // namespace call_record
