// Files for the user alone, replaced as a whole. Any thread.
#pragma once

#include <cstddef>
#include <filesystem>

// Atomic: afterwards the file is the old one or the new one, after a crash too. Written to a
// temporary file of its own name beside it, flushed, renamed; false, with the old file standing,
// when any of it fails.
bool write_private_file(const std::filesystem::path& path, const void* data, std::size_t size);
