#include "tests/support/allocations.h"

#include <algorithm>
#include <cstdlib>
#include <new>

namespace {

thread_local std::size_t allocated = 0;
thread_local const void* watched_block = nullptr;
thread_local std::size_t watched_size = 0;
thread_local allocations::fate watched_fate = allocations::fate::none;

void* take(std::size_t size) noexcept {
  ++allocated;
  return std::malloc(size == 0 ? 1 : size);
}

void* take_or_throw(std::size_t size) {
  void* block = take(size);
  if (block == nullptr) throw std::bad_alloc();
  return block;
}

void give(void* block) noexcept {
  if (block != nullptr && block == watched_block) {
    const auto* bytes = static_cast<const unsigned char*>(block);
    const bool wiped = std::all_of(bytes, bytes + watched_size, [](auto b) { return b == 0; });
    watched_fate = wiped ? allocations::fate::wiped : allocations::fate::left;
    watched_block = nullptr;
  }
  std::free(block);
}

}  // namespace

namespace allocations {

std::size_t count() {
  return allocated;
}

void watch(const void* block, std::size_t size) {
  watched_block = block;
  watched_size = size;
  watched_fate = fate::kept;
}

fate watched() {
  return watched_fate;
}

}  // namespace allocations

void* operator new(std::size_t size) {
  return take_or_throw(size);
}
void* operator new[](std::size_t size) {
  return take_or_throw(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  return take(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
  return take(size);
}
void operator delete(void* block) noexcept {
  give(block);
}
void operator delete[](void* block) noexcept {
  give(block);
}
void operator delete(void* block, std::size_t) noexcept {
  give(block);
}
void operator delete[](void* block, std::size_t) noexcept {
  give(block);
}
void operator delete(void* block, const std::nothrow_t&) noexcept {
  give(block);
}
void operator delete[](void* block, const std::nothrow_t&) noexcept {
  give(block);
}
