#include "control/system_random.h"

#include "connection/secure.h"

bool system_random(void* bytes, std::size_t size) {
  return lund_random_bytes(bytes, size) == LUND_OK;
}
