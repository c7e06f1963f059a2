// What a process's memory holds, by /proc/<pid>/mem: for tests that a secret isn't there any more.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include "control/linux/descriptor.h"

// How often, in all mappings that can be written, but for a sanitizer's own, known by their size,
// which hold no bytes of the program. The process should stand still meanwhile, and the looking
// process is one that may: root, or the parent of its like.
inline int image_count(pid_t pid, std::span<const std::uint8_t> secret) {
  int count = 0;
  const std::string directory = "/proc/" + std::to_string(pid);
  const Descriptor memory(open((directory + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  std::ifstream maps(directory + "/maps");
  constexpr std::size_t CHUNK = 1 << 20;
  constexpr unsigned long long SHADOW = 1ULL << 32;
  std::vector<std::uint8_t> bytes(CHUNK + secret.size());
  for (std::string line; std::getline(maps, line);) {
    unsigned long long from = 0, to = 0;
    char readable = '-', writable = '-';
    if (std::sscanf(line.c_str(), "%llx-%llx %c%c", &from, &to, &readable, &writable) != 4 ||
        readable != 'r' || writable != 'w' || to - from >= SHADOW)
      continue;
    // Chunks overlap, so that what lies across two is found.
    for (unsigned long long at = from; at < to; at += CHUNK) {
      const ssize_t size =
          pread(memory.get(), bytes.data(),
                static_cast<std::size_t>(std::min<unsigned long long>(to - at, bytes.size())),
                static_cast<off_t>(at));
      if (size <= 0) continue;
      // An occurrence in the overlap alone is the next chunk's.
      const std::uint8_t* const end = bytes.data() + size;
      const std::uint8_t* from_here = bytes.data();
      while (const void* found = memmem(from_here, static_cast<std::size_t>(end - from_here),
                                        secret.data(), secret.size())) {
        from_here = static_cast<const std::uint8_t*>(found) + 1;
        if (from_here > bytes.data() + CHUNK) break;
        ++count;
      }
    }
  }
  return count;
}
inline bool image_holds(pid_t pid, std::span<const std::uint8_t> secret) {
  return image_count(pid, secret) != 0;
}
