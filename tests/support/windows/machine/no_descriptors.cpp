// Stands before the system's call that reads security descriptors in SDDL, and fails for all of
// them: linked into a program ahead of the import library's place for it.
#include "control/windows/handles.h"
// After what handles.h includes.
#include <sddl.h>

namespace {

BOOL WINAPI read_descriptor(const wchar_t*, DWORD, PSECURITY_DESCRIPTOR*, ULONG*) {
  SetLastError(ERROR_INVALID_PARAMETER);
  return FALSE;
}

}  // namespace

extern "C" {
decltype(&read_descriptor) __imp_ConvertStringSecurityDescriptorToSecurityDescriptorW =
    read_descriptor;
}
