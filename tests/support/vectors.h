// Published test vectors (tests/vectors/*.json; each file names its origin) and bytes written as
// hexadecimal text.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <span>
#include <string>
#include <vector>

namespace vectors {

using bytes = std::vector<std::uint8_t>;

// Throws for a file that is missing or no JSON, which fails the test.
nlohmann::json load(const std::string& file_name);
// One of the file's lists, as a value that a range-for can hold.
nlohmann::json load_list(const std::string& file_name, const char* list);

bytes from_hex(const std::string& text);  // throws for anything but pairs of digits
std::string to_hex(std::span<const std::uint8_t> data);

}  // namespace vectors
