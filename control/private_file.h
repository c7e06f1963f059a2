// Files for the user alone or, in the machine scope, for the system alone, replaced as a whole. In
// the machine scope whatever is read, replaced or deleted is tested first, each time anew. Any
// thread.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

#include "control/store_platform.h"

// In the machine scope: the file is private, or there is none. In the user scope always true.
bool trusted_or_absent(const std::filesystem::path& path);

// The whole of a plain file that is smaller than `limit_bytes`. One that isn't private is Failed in
// the machine scope. `bytes` holds nothing unless Ok.
store_platform::Read read_private_file(const std::filesystem::path& path, std::size_t limit_bytes,
                                       std::string* bytes);

// Atomic: afterwards the file is the old one or the new one, after a crash too. Written to a
// temporary file of its own name beside it, flushed, renamed; false, with the old file standing,
// when any of it fails. The machine scope writes only while the store is healthy, and only into a
// private directory.
bool write_private_file(const std::filesystem::path& path, const void* data, std::size_t size);

// An empty one, for calls of the system's that would make the file themselves and for more than
// those whom it is for: the machine's store refuses to start beside such a file. What is there
// stays. False when there is none afterwards, or it isn't private.
bool ensure_private_file(const std::filesystem::path& path);
