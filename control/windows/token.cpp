#include "control/windows/token.h"

// After what handles.h includes.
#include <sddl.h>

Handle process_token(HANDLE process, DWORD access) {
  Handle token;
  if (!OpenProcessToken(process, access, token.receive())) token.reset();
  return token;
}

bool is_elevated(HANDLE token) {
  TOKEN_ELEVATION elevation{};
  DWORD size = 0;
  return GetTokenInformation(token, TokenElevation, &elevation, sizeof elevation, &size) &&
         elevation.TokenIsElevated != 0;
}

UserSid::UserSid(HANDLE token) {
  DWORD size = 0;
  if (GetTokenInformation(token, TokenUser, bytes_, sizeof bytes_, &size))
    user_ = reinterpret_cast<const TOKEN_USER*>(bytes_)->User.Sid;
}

std::wstring current_user() {
  const UserSid user(process_token(GetCurrentProcess(), TOKEN_QUERY).get());
  LocalMemory<wchar_t> text;
  if (user.get() == nullptr || !ConvertSidToStringSidW(user.get(), text.receive())) return {};
  return text.get();
}

namespace host_service {

bool enable_privilege(const wchar_t* name) {
  const Handle token = process_token(GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY);
  TOKEN_PRIVILEGES wanted{};
  wanted.PrivilegeCount = 1;
  wanted.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
  if (!token || !LookupPrivilegeValueW(nullptr, name, &wanted.Privileges[0].Luid)) return false;
  // The call succeeds as well where the privilege wasn't there to be switched on.
  SetLastError(ERROR_SUCCESS);
  return AdjustTokenPrivileges(token.get(), FALSE, &wanted, 0, nullptr, nullptr) &&
         GetLastError() == ERROR_SUCCESS;
}

}  // namespace host_service
