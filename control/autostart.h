// Whether this program starts by itself when the user logs in: one entry of the user's own, bound
// to this executable. Stateless; any thread, one writer at a time.
#pragma once

#include <string>

bool autostart_enabled();

// Switching on replaces whatever stands in the entry's place; switching off what isn't on is a
// success. `text` (may be null) becomes what a person should know of it: why it failed, or that an
// entry which started something else is gone; otherwise it is empty.
bool set_autostart(bool enabled, std::string* text = nullptr);
