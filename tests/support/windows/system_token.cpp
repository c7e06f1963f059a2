#include "tests/support/windows/system_token.h"

// After what handles.h includes.
#include <winternl.h>

#include <cstddef>
#include <cstdint>

namespace {

using CreateToken = NTSTATUS(NTAPI*)(HANDLE*, ACCESS_MASK, OBJECT_ATTRIBUTES*, TOKEN_TYPE, LUID*,
                                     LARGE_INTEGER*, TOKEN_USER*, TOKEN_GROUPS*, TOKEN_PRIVILEGES*,
                                     TOKEN_OWNER*, TOKEN_PRIMARY_GROUP*, TOKEN_DEFAULT_DACL*,
                                     TOKEN_SOURCE*);

struct Sid {
  explicit Sid(WELL_KNOWN_SID_TYPE type) {
    DWORD size = sizeof bytes;
    CreateWellKnownSid(type, nullptr, bytes, &size);
  }
  alignas(SID) unsigned char bytes[SECURITY_MAX_SID_SIZE];
};

}  // namespace

Handle make_system_token() {
  const auto create = reinterpret_cast<CreateToken>(
      reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtCreateToken")));
  if (create == nullptr) return {};
  Sid system(WinLocalSystemSid), administrators(WinBuiltinAdministratorsSid), all(WinWorldSid);
  TOKEN_USER user{{system.bytes, 0}};
  struct {
    DWORD count = 3;
    SID_AND_ATTRIBUTES groups[3];
  } groups;
  constexpr DWORD ENABLED = SE_GROUP_MANDATORY | SE_GROUP_ENABLED_BY_DEFAULT | SE_GROUP_ENABLED;
  groups.groups[0] = {administrators.bytes, SE_GROUP_ENABLED | SE_GROUP_OWNER};
  groups.groups[1] = {all.bytes, ENABLED};
  groups.groups[2] = {system.bytes, ENABLED};  // the primary group is one of the groups
  static_assert(offsetof(TOKEN_GROUPS, Groups) == 8 && sizeof groups == 56);
  TOKEN_PRIVILEGES privileges{};
  privileges.PrivilegeCount = 1;
  privileges.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED | SE_PRIVILEGE_ENABLED_BY_DEFAULT;
  LookupPrivilegeValueW(nullptr, SE_TCB_NAME, &privileges.Privileges[0].Luid);
  TOKEN_OWNER owner{administrators.bytes};
  TOKEN_PRIMARY_GROUP group{system.bytes};
  alignas(ACL) unsigned char acl[256];
  auto* list = reinterpret_cast<ACL*>(acl);
  InitializeAcl(list, sizeof acl, ACL_REVISION);
  AddAccessAllowedAce(list, ACL_REVISION, GENERIC_ALL, system.bytes);
  AddAccessAllowedAce(list, ACL_REVISION, GENERIC_ALL, administrators.bytes);
  TOKEN_DEFAULT_DACL dacl{list};
  TOKEN_SOURCE source{{'t', 'e', 's', 't', 's', 0, 0, 0}, {}};
  LUID system_logon{0x3e7, 0};
  LARGE_INTEGER never{};
  never.QuadPart = INT64_MAX;
  OBJECT_ATTRIBUTES attributes{};
  attributes.Length = sizeof attributes;
  Handle token;
  const NTSTATUS status = create(
      token.receive(), TOKEN_ALL_ACCESS, &attributes, TokenPrimary, &system_logon, &never, &user,
      reinterpret_cast<TOKEN_GROUPS*>(&groups), &privileges, &owner, &group, &dacl, &source);
  if (status < 0) token.release();
  return token;
}

Handle make_administrator_token() {
  TOKEN_ELEVATION elevation{};
  TOKEN_LINKED_TOKEN linked{};
  DWORD size = 0;
  Handle own, elevated, token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY | TOKEN_DUPLICATE, own.receive()) ||
      !GetTokenInformation(own.get(), TokenElevation, &elevation, sizeof elevation, &size))
    return {};
  if (elevation.TokenIsElevated == 0) {
    if (!GetTokenInformation(own.get(), TokenLinkedToken, &linked, sizeof linked, &size)) return {};
    elevated.reset(linked.LinkedToken);
  }
  // To start a process with it takes a primary one.
  if (!DuplicateTokenEx(elevated ? elevated.get() : own.get(), TOKEN_ALL_ACCESS, nullptr,
                        SecurityImpersonation, TokenPrimary, token.receive()))
    token.release();
  return token;
}
