#include <windows.h>
// ntsecapi.h needs windows.h before it; it declares RtlGenRandom, which advapi32 exports under the
// name SystemFunction036.
#include <ntsecapi.h>

#include <algorithm>

#include "connection/secure.h"

namespace {
constexpr std::size_t MAX_PIECE_BYTES = 0x10000000;  // the call takes a 32-bit length
}  // namespace

int lund_random_bytes(void* buffer, std::size_t size) {
  auto* out = static_cast<std::uint8_t*>(buffer);
  while (size > 0) {
    const std::size_t piece = std::min(size, MAX_PIECE_BYTES);
    if (!RtlGenRandom(out, static_cast<ULONG>(piece))) return LUND_ERR_RANDOM;
    out += piece;
    size -= piece;
  }
  return LUND_OK;
}
