#include "tests/support/machine_store.h"

#include "control/security.h"
#include "control/windows/security_attributes.h"

// Wine can't say whose a directory is, and a user who isn't an administrator can't give one away.
bool MachineStore::possible() {
  const TempDirectory directory;
  make_private(directory.path());
  return host_service::protected_path(directory.path(), true);
}

void make_private(const std::filesystem::path& path) {
  const SecurityAttributes attributes(std::filesystem::is_directory(path)
                                          ? L"O:BAG:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"
                                          : L"O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)");
  SetFileSecurityW(path.c_str(),
                   OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                       DACL_SECURITY_INFORMATION | PROTECTED_DACL_SECURITY_INFORMATION,
                   attributes.descriptor());
}
