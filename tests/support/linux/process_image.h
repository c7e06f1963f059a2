// What a process's memory holds, by /proc/<pid>/mem: for tests that a secret isn't there any more.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// Where bytes were found.
struct ImagePlace {
  std::uint64_t address = 0;
  std::string mapping;  // "[heap]", "[stack]", a file's path; empty: memory without a name
};

// A copy of all that can be read, but for pages that nobody has written to, of files and of
// nothing, and a sanitizer's own mappings, known by their size, which hold no bytes of the program.
// The process stands still while it is copied, and each of its threads has been asleep since the
// copy was asked for: whatever a thread had still to do to what it has just sent is done. The
// looking process is one that may: root, or the parent of its like.
class ProcessImage {
 public:
  explicit ProcessImage(pid_t pid);

  // In the order of addresses, as often as they are there.
  std::vector<ImagePlace> find(std::span<const std::uint8_t> bytes) const;
  // Empty where the process has no such memory.
  std::span<const std::uint8_t> at(std::uint64_t address, std::size_t size) const;

 private:
  // Pages in a row, of one mapping.
  struct Run {
    std::uint64_t from = 0;
    std::string mapping;
    std::vector<std::uint8_t> bytes;
  };
  void copy(pid_t pid);

  std::vector<Run> runs_;
};

inline std::span<const std::uint8_t> bytes_of_text(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}
inline int image_count(pid_t pid, std::span<const std::uint8_t> secret) {
  return static_cast<int>(ProcessImage(pid).find(secret).size());
}
inline bool image_holds(pid_t pid, std::span<const std::uint8_t> secret) {
  return image_count(pid, secret) != 0;
}
