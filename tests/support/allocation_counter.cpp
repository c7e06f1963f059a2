#include "tests/support/allocation_counter.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

std::atomic<std::uint64_t> allocations{0};
std::atomic<std::size_t> limit_bytes{std::numeric_limits<std::size_t>::max()};

struct Watched {
  const void* block = nullptr;
  std::size_t bytes = 0;
  bool deleted = false;
  bool wiped = false;
};
thread_local Watched watched;

void look_at(const void* block) {
  if (block == nullptr || block != watched.block || watched.deleted) return;
  const auto* bytes = static_cast<const unsigned char*>(block);
  watched.deleted = true;
  watched.wiped = std::all_of(bytes, bytes + watched.bytes, [](auto byte) { return byte == 0; });
}

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

DeletionWatch::DeletionWatch(const void* block, std::size_t bytes) {
  watched = {.block = block, .bytes = bytes};
}
DeletionWatch::~DeletionWatch() {
  watched = {};
}
bool DeletionWatch::deleted() const {
  return watched.deleted;
}
bool DeletionWatch::deleted_wiped() const {
  return watched.deleted && watched.wiped;
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
  look_at(block);
  std::free(block);
}
void operator delete[](void* block) noexcept {
  operator delete(block);
}
void operator delete(void* block, std::size_t) noexcept {
  operator delete(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  operator delete(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  operator delete(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  operator delete(block);
}
