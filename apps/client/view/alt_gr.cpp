#include "apps/client/view/alt_gr.h"

namespace {
// A Left Ctrl's own is 0x1D; the bit above tells the made-up one, and no keyboard sends it.
constexpr std::uint32_t ALT_GRS_CTRL = 0x21D;
}  // namespace

// Released is what Windows holds to be down: from before the filter, when the window got the focus
// while AltGr was held. Dropped, the Ctrl would stay down for all programs.
bool is_alt_grs_ctrl_to_drop(const HookedKey& key, bool ours, bool ctrl_is_down) {
  return key.scan_code == ALT_GRS_CTRL && ours && !(key.up && ctrl_is_down);
}
