#include "tests/support/windows/machine/call_record.h"
// After what handles.h includes.
#include <aclapi.h>

namespace {

using namespace call_record;
using Of = SystemCalls::Of;

HANDLE WINAPI open_process(DWORD access, BOOL inherit, DWORD id) {
  static auto* const call = real(L"kernel32", "OpenProcess", &open_process);
  const Fate fate = tell(
      Of::Trust, "OpenProcess",
      "access " + hex(access) + " inherit " + std::to_string(inherit) + " " + std::to_string(id));
  return fate.fails ? nullptr : call(access, inherit, id);
}

BOOL WINAPI open_token(HANDLE process, DWORD access, HANDLE* token) {
  static auto* const call = real(L"advapi32", "OpenProcessToken", &open_token);
  return tell(Of::Trust, "OpenProcessToken", "access " + hex(access)).fails
             ? FALSE
             : call(process, access, token);
}

BOOL WINAPI token_information(HANDLE token, TOKEN_INFORMATION_CLASS what, void* value, DWORD size,
                              DWORD* needed) {
  static auto* const call = real(L"advapi32", "GetTokenInformation", &token_information);
  const Fate fate = tell(Of::Trust, "GetTokenInformation", std::to_string(what));
  if (fate.fails) return FALSE;
  if (!fate.answer) return call(token, what, value, size, needed);
  *static_cast<DWORD*>(value) = *fate.answer;
  return TRUE;
}

BOOL WINAPI duplicate(HANDLE token, SECURITY_IMPERSONATION_LEVEL level, HANDLE* copy) {
  static auto* const call = real(L"advapi32", "DuplicateToken", &duplicate);
  return tell(Of::Trust, "DuplicateToken", "level " + std::to_string(level)).fails
             ? FALSE
             : call(token, level, copy);
}

BOOL WINAPI is_member(HANDLE token, PSID sid, BOOL* member) {
  static auto* const call = real(L"advapi32", "CheckTokenMembership", &is_member);
  const bool administrators = IsWellKnownSid(sid, WinBuiltinAdministratorsSid) != FALSE;
  const Fate fate =
      tell(Of::Trust, "CheckTokenMembership", administrators ? "administrators" : "others");
  if (fate.fails) return FALSE;
  if (!fate.answer) return call(token, sid, member);
  *member = static_cast<BOOL>(*fate.answer);
  return TRUE;
}

BOOL WINAPI adjust(HANDLE token, BOOL none, TOKEN_PRIVILEGES* wanted, DWORD size,
                   TOKEN_PRIVILEGES* former, DWORD* needed) {
  static auto* const call = real(L"advapi32", "AdjustTokenPrivileges", &adjust);
  const Fate fate = tell(Of::Trust, "AdjustTokenPrivileges",
                         "count " + std::to_string(wanted->PrivilegeCount) + " attributes " +
                             hex(wanted->Privileges[0].Attributes) + " last error " +
                             std::to_string(GetLastError()));
  return fate.fails ? TRUE : call(token, none, wanted, size, former, needed);
}

DWORD WINAPI path_security(const wchar_t* path, SE_OBJECT_TYPE type, SECURITY_INFORMATION what,
                           PSID* owner, PSID* group, PACL* list, PACL* audit,
                           PSECURITY_DESCRIPTOR* descriptor) {
  static auto* const call = real(L"advapi32", "GetNamedSecurityInfoW", &path_security);
  const Fate fate =
      tell(Of::Trust, "GetNamedSecurityInfoW",
           text(path) + " type " + std::to_string(type) + " information " + hex(what));
  return fate.fails ? GetLastError()
                    : call(path, type, what, owner, group, list, audit, descriptor);
}

DWORD WINAPI attributes_of(const wchar_t* path) {
  static auto* const call = real(L"kernel32", "GetFileAttributesW", &attributes_of);
  const Fate fate = tell(Of::Trust, "GetFileAttributesW", text(path));
  return fate.fails ? INVALID_FILE_ATTRIBUTES : fate.answer ? *fate.answer : call(path);
}

BOOL WINAPI create_directory(const wchar_t* path, SECURITY_ATTRIBUTES* attributes) {
  static auto* const call = real(L"kernel32", "CreateDirectoryW", &create_directory);
  return tell(Of::Trust, "CreateDirectoryW", descriptor_of(attributes)).fails
             ? FALSE
             : call(path, attributes);
}

}  // namespace

extern "C" {
decltype(&open_process) __imp_OpenProcess = open_process;
decltype(&open_token) __imp_OpenProcessToken = open_token;
decltype(&token_information) __imp_GetTokenInformation = token_information;
decltype(&duplicate) __imp_DuplicateToken = duplicate;
decltype(&is_member) __imp_CheckTokenMembership = is_member;
decltype(&adjust) __imp_AdjustTokenPrivileges = adjust;
decltype(&path_security) __imp_GetNamedSecurityInfoW = path_security;
decltype(&attributes_of) __imp_GetFileAttributesW = attributes_of;
decltype(&create_directory) __imp_CreateDirectoryW = create_directory;
}
