// What is done to the virtual display driver, step by step, over its seam. Stateless: each function
// is called by one thread at a time where it changes something, by any where it only looks.
#pragma once

#include <string>
#include <vector>

#include "capture/vdd.h"
#include "capture/vdd_driver.h"

namespace vdd_control {

// Larger ones count as unreadable: a real one has a few KiB, and what its lists multiply to must
// not fill the memory.
inline constexpr std::size_t SETTINGS_LIMIT_BYTES = 131'072;

VddState inspect(VirtualDisplayDriver& driver);

// False without a device, or when the change fails.
bool change_vdd_device(VirtualDisplayDriver& driver, VirtualDisplayDriver::AdapterChange change);

bool read_settings(VirtualDisplayDriver& driver, const std::string& path, std::string* text);
// By way of a file beside it, so that the driver never sees a half-written one.
bool write_settings(VirtualDisplayDriver& driver, const std::string& path, const std::string& text);

// Has the driver read its settings again, which it does only when it starts: a restart of its
// device, or `count` monitors through its pipe. `state`: of the moment.
bool reload_driver(VirtualDisplayDriver& driver, int count, const VddState& state);

// Those of at least 24 bits a pixel, and those that don't say.
std::vector<DisplayMode> device_modes(VirtualDisplayDriver& driver, const std::string& device);
bool has_mode(const std::vector<DisplayMode>& modes, const DisplayMode& mode);

const char* change_word(VirtualDisplayDriver::ModeChange change);

void pause_ms(std::uint32_t ms);

}  // namespace vdd_control
