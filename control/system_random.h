// Random bytes of the system's for what is no key: the names of files on their way into place, the
// host's number. Stateless; any thread.
#pragma once

#include <cstddef>

// False when the system's source fails.
bool system_random(void* bytes, std::size_t size);
