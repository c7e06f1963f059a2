#include "control/system_random.h"

#include "control/windows/handles.h"
// After what handles.h includes.
#include <bcrypt.h>

bool system_random(void* bytes, std::size_t size) {
  return BCRYPT_SUCCESS(BCryptGenRandom(nullptr, static_cast<UCHAR*>(bytes),
                                        static_cast<ULONG>(size), BCRYPT_USE_SYSTEM_PREFERRED_RNG));
}
