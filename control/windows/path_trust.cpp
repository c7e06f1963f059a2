#include "control/windows/path_trust.h"

// After what handles.h includes.
#include <sddl.h>

namespace host_service {

namespace {

// The account of the system's own installer, which owns much of the system's directories.
constexpr wchar_t TRUSTED_INSTALLER[] =
    L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

// Rights to rename or re-own what lies in a directory. Others than the system may have those to
// make things in it: a volume's root normally gives them to all users.
constexpr ACCESS_MASK ANCESTOR_RIGHTS =
    GENERIC_ALL | GENERIC_WRITE | WRITE_DAC | WRITE_OWNER | DELETE | FILE_DELETE_CHILD;
constexpr ACCESS_MASK FILE_WRITE_RIGHTS =
    ANCESTOR_RIGHTS | FILE_WRITE_ATTRIBUTES | FILE_WRITE_EA | FILE_APPEND_DATA | FILE_WRITE_DATA;
static_assert(ANCESTOR_RIGHTS == 0x500D'0040 && FILE_WRITE_RIGHTS == 0x500D'0156);

class Judge {
 public:
  explicit Judge(PathTest test) : test_(test) {
    if (test != PathTest::Private &&
        !ConvertStringSidToSidW(TRUSTED_INSTALLER, installer_.receive()))
      installer_.reset();
  }

  bool trusts(PSID sid) const {
    return is_system_or_administrators(sid) || (installer_ && EqualSid(sid, installer_.get()));
  }

  bool accepts(const ACE_HEADER& ace) const {
    if (ace.AceType == ACCESS_DENIED_ACE_TYPE) return true;
    if (ace.AceType != ACCESS_ALLOWED_ACE_TYPE) return false;
    const auto& allowed = reinterpret_cast<const ACCESS_ALLOWED_ACE&>(ace);
    if (trusts(const_cast<DWORD*>(&allowed.SidStart))) return true;
    if (test_ == PathTest::Private) return false;
    const ACCESS_MASK harmful = test_ == PathTest::Ancestor ? ANCESTOR_RIGHTS : FILE_WRITE_RIGHTS;
    return (ace.AceFlags & INHERIT_ONLY_ACE) != 0 || (allowed.Mask & harmful) == 0;
  }

 private:
  const PathTest test_;
  LocalMemory<void> installer_;
};

bool inherits_nothing(PSECURITY_DESCRIPTOR descriptor) {
  SECURITY_DESCRIPTOR_CONTROL control = 0;
  DWORD revision = 0;
  return GetSecurityDescriptorControl(descriptor, &control, &revision) &&
         (control & SE_DACL_PROTECTED) != 0;
}

}  // namespace

bool is_system_or_administrators(PSID sid) {
  return IsWellKnownSid(sid, WinLocalSystemSid) || IsWellKnownSid(sid, WinBuiltinAdministratorsSid);
}

bool trusted(PSECURITY_DESCRIPTOR descriptor, PathTest test) {
  PSID owner = nullptr;
  PACL list = nullptr;
  BOOL defaulted = FALSE, present = FALSE;
  if (!GetSecurityDescriptorOwner(descriptor, &owner, &defaulted) || owner == nullptr ||
      !GetSecurityDescriptorDacl(descriptor, &present, &list, &defaulted) || !present ||
      list == nullptr)
    return false;
  const Judge judge(test);
  if (!judge.trusts(owner) || (test == PathTest::Private && !inherits_nothing(descriptor)))
    return false;
  for (DWORD i = 0; i < list->AceCount; ++i) {
    void* ace = nullptr;
    if (!GetAce(list, i, &ace) || !judge.accepts(*static_cast<const ACE_HEADER*>(ace)))
      return false;
  }
  return true;
}

}  // namespace host_service
