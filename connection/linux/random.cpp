#include <sys/random.h>

#include <cerrno>

#include "connection/secure.h"

int lund_random_bytes(void* buffer, std::size_t size) {
  auto* out = static_cast<std::uint8_t*>(buffer);
  while (size > 0) {
    const ssize_t got = getrandom(out, size, 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return LUND_ERR_RANDOM;
    out += got;
    size -= static_cast<std::size_t>(got);
  }
  return LUND_OK;
}
