#include "control/private_file.h"

#include "connection/secure.h"
#include "control/store_platform.h"

namespace {

constexpr std::size_t TEMPORARY_NAME_BYTES = 16;

// Empty when the random source fails.
std::filesystem::path temporary_beside(const std::filesystem::path& path) {
  std::uint8_t bytes[TEMPORARY_NAME_BYTES];
  if (lund_random_bytes(bytes, sizeof bytes) != LUND_OK) return {};
  char hex[2 * TEMPORARY_NAME_BYTES + 1];
  lund_hex_encode(hex, bytes, sizeof bytes);
  std::filesystem::path temporary = path;
  temporary += std::string(".tmp-") + hex;
  return temporary;
}

}  // namespace

bool write_private_file(const std::filesystem::path& path, const void* data, std::size_t size) {
  const std::filesystem::path temporary = temporary_beside(path);
  if (temporary.empty() || !store_platform::create_file(temporary, data, size)) return false;
  if (store_platform::replace_file(temporary, path)) return true;
  store_platform::remove_file(temporary);
  return false;
}
