// Text between programs here and the wire, which has valid UTF-8 with LF line ends. Pure.
#pragma once

#include <string>
#include <string_view>

// A program's text up to its first NUL: CR LF becomes LF, a lone CR stays, and what isn't UTF-8
// becomes U+FFFD, byte for byte.
std::string text_for_wire(std::string_view local);

// What has come in, up to its first NUL. With `crlf`, a LF without a CR before it becomes CR LF.
std::string text_for_programs(std::string_view wire, bool crlf);
