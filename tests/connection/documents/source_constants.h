// Constants and enumerators as the sources write them, for documents that name them.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// The values of "NAME = expression;" or "NAME{a, b};" in a file of the tree: products and shifts of
// integers, and of constants of the same file or of connection's headers. Empty, and a
// failed test, when there is none or it can't be read.
std::vector<std::uint64_t> source_constant(const std::string& file, const std::string& name);

// "PREFIX_NAME = number," of a file: numbers by name without the prefix.
std::map<std::string, int> source_enumerators(const std::string& file, const std::string& prefix);

// A quantity as a document writes it, "250 ms" or "20 a second, 40 at once", in the unit that the
// constant's name tells: the numbers in order.
std::vector<std::uint64_t> quantity(const std::string& text, const std::string& constant);
