#include "control/windows/security_descriptor.h"

#include <sddl.h>

#include <cstddef>
#include <vector>

namespace {

constexpr const wchar_t* MACHINE_FILE = L"O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";

// A protected list of the user and the system, each entry with the inheritance flags.
SecurityDescriptor user_descriptor(const std::wstring& flags) {
  const std::wstring sid = current_user_sid();
  if (sid.empty()) return {};
  return security_descriptor(L"D:P(A;" + flags + L";FA;;;" + sid + L")(A;" + flags + L";FA;;;SY)");
}

}  // namespace

SecurityDescriptor security_descriptor(const std::wstring& sddl) {
  SecurityDescriptor descriptor;
  if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1,
                                                            descriptor.receive(), nullptr))
    return {};
  return descriptor;
}

SECURITY_ATTRIBUTES security_attributes(const SecurityDescriptor& descriptor) {
  return {sizeof(SECURITY_ATTRIBUTES), descriptor.get(), FALSE};
}

std::wstring current_user_sid() {
  Handle token;
  if (!OpenProcessToken(GetCurrentProcess(), TOKEN_QUERY, token.receive())) return {};
  alignas(TOKEN_USER) std::byte buffer[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  DWORD size = 0;
  if (!GetTokenInformation(token.get(), TokenUser, buffer, sizeof(buffer), &size)) return {};
  LocalMemory<wchar_t> text;
  if (!ConvertSidToStringSidW(reinterpret_cast<const TOKEN_USER*>(buffer)->User.Sid,
                              text.receive()))
    return {};
  return text.get();
}

SecurityDescriptor store_file_descriptor(keystore::HostStoreScope scope) {
  return scope == keystore::Machine ? security_descriptor(MACHINE_FILE) : user_descriptor(L"");
}

SecurityDescriptor user_directory_descriptor() {
  return user_descriptor(L"OICI");
}
