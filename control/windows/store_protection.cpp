// Encryption of the store's secrets by the data protection interface (DPAPI): Windows keeps the
// keys, the user's or the machine's, and what it gives out is the file. Its blobs are bound to
// neither file nor purpose; one in the other's place is told by the text inside.
#include "control/windows/handles.h"
// After what handles.h includes.
#include <dpapi.h>

#include "connection/secure.h"
#include "control/store_platform.h"

namespace store_platform {

namespace {

// DPAPI takes its input through a pointer to what isn't const, and leaves it alone.
DATA_BLOB blob_of(std::string_view bytes) {
  return {static_cast<DWORD>(bytes.size()),
          reinterpret_cast<BYTE*>(const_cast<char*>(bytes.data()))};
}

// Wiped before it goes back, since it may be the plain text.
class OutputBlob {
 public:
  OutputBlob() = default;
  ~OutputBlob() {
    if (blob_.pbData == nullptr) return;
    lund_secure_wipe(blob_.pbData, blob_.cbData);
    LocalFree(blob_.pbData);
  }
  OutputBlob(const OutputBlob&) = delete;
  OutputBlob& operator=(const OutputBlob&) = delete;

  DATA_BLOB* receive() { return &blob_; }
  void copy_to(std::string* bytes) const {
    bytes->assign(reinterpret_cast<const char*>(blob_.pbData), blob_.cbData);
  }

 private:
  DATA_BLOB blob_{};
};

}  // namespace

bool protect(keystore::HostStoreScope scope, const std::filesystem::path&, std::string_view,
             std::string_view plain, std::string* sealed) {
  sealed->clear();
  DATA_BLOB in = blob_of(plain);
  OutputBlob out;
  const DWORD flags = CRYPTPROTECT_UI_FORBIDDEN |
                      (scope == keystore::Machine ? CRYPTPROTECT_LOCAL_MACHINE : DWORD{0});
  if (!CryptProtectData(&in, L"Lunderhaze", nullptr, nullptr, nullptr, flags, out.receive()))
    return false;
  out.copy_to(sealed);
  return true;
}

// What a blob is sealed for, this user or this machine, it says itself.
bool unprotect(keystore::HostStoreScope, const std::filesystem::path&, std::string_view,
               std::string_view sealed, std::string* plain) {
  plain->clear();
  DATA_BLOB in = blob_of(sealed);
  OutputBlob out;
  if (!CryptUnprotectData(&in, nullptr, nullptr, nullptr, nullptr, CRYPTPROTECT_UI_FORBIDDEN,
                          out.receive()))
    return false;
  out.copy_to(plain);
  return true;
}

}  // namespace store_platform
