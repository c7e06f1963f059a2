// Counts what goes through operator new in this program, and watches how memory is given back.
#pragma once

#include <cstddef>

namespace allocations {

std::size_t count();  // by this thread, since it began

// Watches one block: when it is deleted, whether all its bytes were zero then.
void watch(const void* block, std::size_t size);
enum class fate { none, kept, wiped, left };
fate watched();

}  // namespace allocations
