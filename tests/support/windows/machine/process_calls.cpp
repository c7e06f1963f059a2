#include "tests/support/windows/machine/call_record.h"

namespace {

using namespace call_record;
using Of = SystemCalls::Of;

BOOL WINAPI library_directories(DWORD flags) {
  static auto* const call = real(L"kernel32", "SetDefaultDllDirectories", &library_directories);
  return tell(Of::Process, "SetDefaultDllDirectories", hex(flags)).fails ? FALSE : call(flags);
}

HANDLE WINAPI create_mutex(SECURITY_ATTRIBUTES* attributes, BOOL owned, const wchar_t* name) {
  static auto* const call = real(L"kernel32", "CreateMutexW", &create_mutex);
  const Fate fate =
      tell(Of::Process, "CreateMutexW",
           text(name) + " owned " + std::to_string(owned) + " " + descriptor_of(attributes));
  return fate.fails ? nullptr : call(attributes, owned, name);
}

BOOL WINAPI release_mutex(HANDLE mutex) {
  static auto* const call = real(L"kernel32", "ReleaseMutex", &release_mutex);
  return tell(Of::Process, "ReleaseMutex", "").fails ? FALSE : call(mutex);
}

EXECUTION_STATE WINAPI execution_state(EXECUTION_STATE state) {
  static auto* const call = real(L"kernel32", "SetThreadExecutionState", &execution_state);
  return tell(Of::Process, "SetThreadExecutionState", hex(state)).fails ? 0 : call(state);
}

}  // namespace

extern "C" {
decltype(&library_directories) __imp_SetDefaultDllDirectories = library_directories;
decltype(&create_mutex) __imp_CreateMutexW = create_mutex;
decltype(&release_mutex) __imp_ReleaseMutex = release_mutex;
decltype(&execution_state) __imp_SetThreadExecutionState = execution_state;
}
