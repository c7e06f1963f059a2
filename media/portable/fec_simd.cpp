// For processors without a vector path of their own.
#include "media/fec_internal.h"

const lund_fec::region_ops* lund_fec::simd_ops() {
  return nullptr;
}
