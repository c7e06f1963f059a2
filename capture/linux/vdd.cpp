// No driver for virtual displays exists here.
#include "capture/vdd.h"

#include "capture/no_vdd_driver.h"

std::unique_ptr<VirtualDisplays> make_virtual_displays() {
  return std::make_unique<NoVirtualDisplays>();
}
