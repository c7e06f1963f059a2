// Texts from outside, as they may stand on a terminal. Pure.
#pragma once

#include <string>
#include <string_view>

namespace ctl {

// Each control character, C0, C1 and those that turn the direction of a line (UAX #9), and each
// byte that isn't UTF-8, becomes "?": a name that a device has given itself neither steers the
// terminal nor passes for more than one line. The result is valid UTF-8.
std::string shown_text(std::string_view text);

}  // namespace ctl
