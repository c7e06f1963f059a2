#include "tests/support/windows/machine/call_record.h"
// After what handles.h includes.
#include <bcrypt.h>
#include <iphlpapi.h>
#include <shellapi.h>
#include <shlobj.h>

namespace {

using namespace call_record;
using Of = SystemCalls::Of;

// Failing for want of room it asks for a thousand bytes more than it was given.
ULONG WINAPI adapters(ULONG family, ULONG flags, void* reserved, IP_ADAPTER_ADDRESSES* list,
                      ULONG* bytes) {
  static auto* const call = real(L"iphlpapi", "GetAdaptersAddresses", &adapters);
  const Fate fate = tell(Of::Computer, "GetAdaptersAddresses",
                         "family " + std::to_string(family) + " flags " + hex(flags) + " bytes " +
                             std::to_string(*bytes));
  if (!fate.fails && !fate.answer) return call(family, flags, reserved, list, bytes);
  const ULONG result = fate.fails ? GetLastError() : *fate.answer;
  if (result == ERROR_BUFFER_OVERFLOW) *bytes += 1'000;
  return result;
}

// Answered, it starts something and gives no handle of it.
BOOL WINAPI execute(SHELLEXECUTEINFOW* command) {
  static auto* const call = real(L"shell32", "ShellExecuteExW", &execute);
  const Fate fate =
      tell(Of::Computer, "ShellExecuteExW",
           text(command->lpVerb) + " " + text(command->lpFile) + " " + text(command->lpParameters) +
               " show " + std::to_string(command->nShow) + " mask " + hex(command->fMask));
  if (fate.fails) return FALSE;
  if (!fate.answer) return call(command);
  command->hProcess = nullptr;
  return TRUE;
}

NTSTATUS WINAPI random(BCRYPT_ALG_HANDLE algorithm, UCHAR* bytes, ULONG size, ULONG flags) {
  static auto* const call = real(L"bcrypt", "BCryptGenRandom", &random);
  const Fate fate = tell(Of::Files, "BCryptGenRandom",
                         std::string(algorithm == nullptr ? "the system's" : "another's") +
                             " bytes " + std::to_string(size) + " flags " + hex(flags));
  return fate.fails ? static_cast<NTSTATUS>(GetLastError()) : call(algorithm, bytes, size, flags);
}

BOOL WINAPI full_name(COMPUTER_NAME_FORMAT kind, wchar_t* name, DWORD* size) {
  static auto* const call = real(L"kernel32", "GetComputerNameExW", &full_name);
  return tell(Of::Computer, "GetComputerNameExW", std::to_string(kind)).fails
             ? FALSE
             : call(kind, name, size);
}

BOOL WINAPI short_name(wchar_t* name, DWORD* size) {
  static auto* const call = real(L"kernel32", "GetComputerNameW", &short_name);
  return tell(Of::Computer, "GetComputerNameW", "").fails ? FALSE : call(name, size);
}

// On failure it gives a null out.
HRESULT WINAPI folder(const GUID& which, DWORD flags, HANDLE token, wchar_t** path) {
  static auto* const call = real(L"shell32", "SHGetKnownFolderPath", &folder);
  const Fate fate = tell(Of::Computer, "SHGetKnownFolderPath",
                         "flags " + hex(flags) + (token == nullptr ? " own" : " another's"));
  if (!fate.fails) return call(which, flags, token, path);
  *path = nullptr;
  return HRESULT_FROM_WIN32(GetLastError());
}

}  // namespace

extern "C" {
decltype(&execute) __imp_ShellExecuteExW = execute;
decltype(&full_name) __imp_GetComputerNameExW = full_name;
decltype(&short_name) __imp_GetComputerNameW = short_name;

// Their headers don't say that they lie in a DLL, so they are called by their names.
HRESULT WINAPI SHGetKnownFolderPath(const GUID& which, DWORD flags, HANDLE token, wchar_t** path) {
  return folder(which, flags, token, path);
}
ULONG WINAPI GetAdaptersAddresses(ULONG family, ULONG flags, void* reserved,
                                  IP_ADAPTER_ADDRESSES* list, ULONG* bytes) {
  return adapters(family, flags, reserved, list, bytes);
}
NTSTATUS WINAPI BCryptGenRandom(BCRYPT_ALG_HANDLE algorithm, UCHAR* bytes, ULONG size,
                                ULONG flags) {
  return random(algorithm, bytes, size, flags);
}
}
