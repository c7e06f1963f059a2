#include "control/private_file.h"

#include "connection/secure.h"
#include "control/keystore.h"
#include "control/security.h"
#include "control/system_random.h"

namespace {

constexpr std::size_t TEMPORARY_NAME_BYTES = 16;

// Empty when the random source fails.
std::filesystem::path temporary_beside(const std::filesystem::path& path) {
  std::uint8_t bytes[TEMPORARY_NAME_BYTES];
  if (!system_random(bytes, sizeof bytes)) return {};
  char hex[2 * TEMPORARY_NAME_BYTES + 1];
  lund_hex_encode(hex, bytes, sizeof bytes);
  std::filesystem::path temporary = path;
  temporary += std::string(".tmp-") + hex;
  return temporary;
}

using store_platform::Read;

bool is_machine() {
  return keystore::hostStoreScope() == keystore::Machine;
}

bool may_write(const std::filesystem::path& path) {
  return !is_machine() ||
         (keystore::hostStoreHealthy(nullptr) &&
          host_service::protected_path(path.parent_path(), true) && trusted_or_absent(path));
}

}  // namespace

bool trusted_or_absent(const std::filesystem::path& path) {
  return !is_machine() || store_platform::is_absent(path) ||
         host_service::protected_path(path, true);
}

Read read_private_file(const std::filesystem::path& path, std::size_t limit_bytes,
                       std::string* bytes) {
  bytes->clear();
  if (!trusted_or_absent(path)) return Read::Failed;
  return store_platform::read_file(path, limit_bytes, bytes);
}

bool write_private_file(const std::filesystem::path& path, const void* data, std::size_t size) {
  if (!may_write(path)) return false;
  const std::filesystem::path temporary = temporary_beside(path);
  if (temporary.empty() || !store_platform::create_file(temporary, data, size)) return false;
  if (store_platform::replace_file(temporary, path)) return true;
  store_platform::remove_file(temporary);
  return false;
}

bool ensure_private_file(const std::filesystem::path& path) {
  return may_write(path) &&
         (!store_platform::is_absent(path) || store_platform::create_file(path, nullptr, 0));
}
