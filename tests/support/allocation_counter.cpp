#include "tests/support/allocation_counter.h"

#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

std::atomic<std::uint64_t> allocations{0};
std::atomic<std::size_t> limit_bytes{std::numeric_limits<std::size_t>::max()};

bool admit(std::size_t bytes) {
  ++allocations;
  return bytes <= limit_bytes;
}

}  // namespace

std::uint64_t AllocationCount::total() {
  return allocations;
}

AllocationLimit::AllocationLimit(std::size_t bytes) {
  limit_bytes = bytes;
}
AllocationLimit::~AllocationLimit() {
  limit_bytes = std::numeric_limits<std::size_t>::max();
}

// The linker's --wrap sends the program's calls here.
extern "C" {
void* __real_malloc(std::size_t bytes);
void* __real_calloc(std::size_t count, std::size_t bytes);
void* __real_realloc(void* old, std::size_t bytes);

void* __wrap_malloc(std::size_t bytes) {
  return admit(bytes) ? __real_malloc(bytes) : nullptr;
}
void* __wrap_calloc(std::size_t count, std::size_t bytes) {
  return admit(count * bytes) ? __real_calloc(count, bytes) : nullptr;
}
void* __wrap_realloc(void* old, std::size_t bytes) {
  return admit(bytes) ? __real_realloc(old, bytes) : nullptr;
}
}

// All forms but the aligned ones: a sanitizer brings its own of those that are left out, and it
// minds what a block was allocated with.
void* operator new(std::size_t bytes, const std::nothrow_t&) noexcept {
  return std::malloc(bytes == 0 ? 1 : bytes);
}
void* operator new(std::size_t bytes) {
  if (void* block = operator new(bytes, std::nothrow)) return block;
  throw std::bad_alloc();
}
void* operator new[](std::size_t bytes, const std::nothrow_t&) noexcept {
  return operator new(bytes, std::nothrow);
}
void* operator new[](std::size_t bytes) {
  return operator new(bytes);
}
void operator delete(void* block) noexcept {
  std::free(block);
}
void operator delete[](void* block) noexcept {
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  std::free(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  std::free(block);
}
