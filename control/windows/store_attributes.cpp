#include "control/windows/store_attributes.h"

#include "control/windows/token.h"

namespace {

constexpr const wchar_t* MACHINE_FILE = L"O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)";

// For the user and the system, with the flags of inheritance.
SecurityAttributes user_attributes(const std::wstring& flags) {
  const std::wstring user = current_user();
  if (user.empty()) return {};
  return SecurityAttributes(L"D:P(A;" + flags + L";FA;;;" + user + L")(A;" + flags + L";FA;;;SY)");
}

}  // namespace

SecurityAttributes store_file_attributes(keystore::HostStoreScope scope) {
  return scope == keystore::Machine ? SecurityAttributes(MACHINE_FILE) : user_attributes(L"");
}

SecurityAttributes user_directory_attributes() {
  return user_attributes(L"OICI");
}
