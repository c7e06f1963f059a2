#include "apps/client/view/alt_gr.h"

// X and Wayland have a modifier of its own for AltGr.
void AltGrFilter::want(bool) {}
