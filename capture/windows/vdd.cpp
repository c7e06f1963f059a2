#include "capture/vdd.h"

#include "capture/vdd_leases.h"
#include "capture/windows/vdd_driver.h"

std::unique_ptr<VirtualDisplays> make_virtual_displays() {
  return std::make_unique<LeasedVirtualDisplays>(std::make_unique<WindowsVddDriver>());
}
