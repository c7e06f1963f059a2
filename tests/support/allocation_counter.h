// Counts the program's allocations, and lets them fail: operator new, and the calls of malloc,
// calloc and realloc that are linked into the program (those inside shared libraries are not seen).
// Works under the sanitizers too. For programs that link the object library
// test_allocation_counter; the counts are the whole program's, of all threads.
#pragma once

#include <cstddef>
#include <cstdint>

class AllocationCount {
 public:
  AllocationCount() : start_(total()) {}
  std::uint64_t count() const { return total() - start_; }  // since this object was made

 private:
  static std::uint64_t total();
  std::uint64_t start_;
};

// While it lives, every request above a number of bytes fails, as if memory were short.
class AllocationLimit {
 public:
  explicit AllocationLimit(std::size_t bytes);
  ~AllocationLimit();
  AllocationLimit(const AllocationLimit&) = delete;
  AllocationLimit& operator=(const AllocationLimit&) = delete;
};

// Watches one block: whether each of its bytes was zero when it was given to operator delete. One
// at a time, and for the thread that made it.
class DeletionWatch {
 public:
  DeletionWatch(const void* block, std::size_t bytes);
  ~DeletionWatch();
  DeletionWatch(const DeletionWatch&) = delete;
  DeletionWatch& operator=(const DeletionWatch&) = delete;
  bool deleted() const;
  bool deleted_wiped() const;
};
