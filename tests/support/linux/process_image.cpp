#include "tests/support/linux/process_image.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <thread>

#include "control/linux/descriptor.h"

namespace {

constexpr std::uint64_t SHADOW_BYTES = 1ULL << 32;
constexpr std::chrono::seconds DEADLINE{20};

// The letter by which the kernel says what a thread does; 'X' for one that is gone.
char state_of(const std::filesystem::path& thread) {
  std::ifstream file(thread / "stat");
  std::string line;
  std::getline(file, line);
  const std::size_t name_end = line.rfind(") ");  // a name may hold anything
  return name_end == std::string::npos || name_end + 2 >= line.size() ? 'X' : line[name_end + 2];
}

// Waits until `is` has been true once of the state of every thread.
template <typename Condition>
void wait_for_threads(pid_t pid, Condition is) {
  const std::filesystem::path threads = "/proc/" + std::to_string(pid) + "/task";
  const auto until = std::chrono::steady_clock::now() + DEADLINE;
  std::set<std::filesystem::path> done;
  for (bool all = false; !all; std::this_thread::sleep_for(std::chrono::milliseconds(1))) {
    all = true;
    for (const auto& thread : std::filesystem::directory_iterator(threads)) {
      if (done.contains(thread.path())) continue;
      if (is(state_of(thread.path())))
        done.insert(thread.path());
      else
        all = false;
    }
    if (std::chrono::steady_clock::now() > until) {
      ADD_FAILURE() << "process " << pid << " does not stand still";
      return;
    }
  }
}

struct Mapping {
  std::uint64_t from = 0;
  std::uint64_t to = 0;
  bool readable = false;
  bool shared = false;
  std::string name;
};

Mapping parse_mapping(const std::string& line) {
  Mapping mapping;
  char dash = 0;
  std::string access, offset, device, inode;
  std::istringstream fields(line);
  fields >> std::hex >> mapping.from >> dash >> mapping.to >> access >> offset >> device >> inode >>
      std::ws;
  std::getline(fields, mapping.name);
  mapping.readable = access.starts_with('r');
  mapping.shared = access.ends_with('s');
  return mapping;
}

// By the page's entry in /proc/<pid>/pagemap: there, and not a file's page as it stands on the
// disk.
bool was_written(std::uint64_t entry, bool shared) {
  constexpr std::uint64_t PRESENT = 1ULL << 63, SWAPPED = 1ULL << 62, OF_FILE = 1ULL << 61;
  return (entry & (PRESENT | SWAPPED)) != 0 && (shared || (entry & OF_FILE) == 0);
}

bool is_stopped(char state) {
  return state == 'T' || state == 't' || state == 'Z' || state == 'X';
}

}  // namespace

ProcessImage::ProcessImage(pid_t pid) {
  const bool runs = !is_stopped(state_of("/proc/" + std::to_string(pid)));
  wait_for_threads(pid, [](char state) { return state == 'S' || is_stopped(state); });
  if (runs) kill(pid, SIGSTOP);
  wait_for_threads(pid, is_stopped);
  copy(pid);
  if (runs) kill(pid, SIGCONT);
}

void ProcessImage::copy(pid_t pid) {
  const std::string directory = "/proc/" + std::to_string(pid);
  const Descriptor memory(open((directory + "/mem").c_str(), O_RDONLY | O_CLOEXEC));
  const Descriptor pages(open((directory + "/pagemap").c_str(), O_RDONLY | O_CLOEXEC));
  EXPECT_GE(memory.get(), 0) << "the memory of process " << pid << " can't be read";
  EXPECT_GE(pages.get(), 0);
  const auto page_bytes = static_cast<std::size_t>(getpagesize());
  std::vector<std::uint8_t> bytes(page_bytes);
  std::ifstream maps(directory + "/maps");
  for (std::string line; std::getline(maps, line);) {
    const Mapping mapping = parse_mapping(line);
    if (!mapping.readable || mapping.to - mapping.from >= SHADOW_BYTES) continue;
    bool in_row = false;
    for (std::uint64_t at = mapping.from; at < mapping.to; at += page_bytes) {
      std::uint64_t page = 0;
      const bool told = pread(pages.get(), &page, sizeof page,
                              static_cast<off_t>(at / page_bytes * sizeof page)) == sizeof page;
      const bool kept = told && was_written(page, mapping.shared) &&
                        pread(memory.get(), bytes.data(), page_bytes, static_cast<off_t>(at)) ==
                            static_cast<ssize_t>(page_bytes);
      if (kept && !in_row) runs_.push_back({at, mapping.name, {}});
      if (kept) runs_.back().bytes.insert(runs_.back().bytes.end(), bytes.begin(), bytes.end());
      in_row = kept;
    }
  }
  EXPECT_FALSE(runs_.empty()) << "process " << pid << " has no memory";
}

std::vector<ImagePlace> ProcessImage::find(std::span<const std::uint8_t> bytes) const {
  std::vector<ImagePlace> places;
  for (const Run& run : runs_) {
    const std::uint8_t* const begin = run.bytes.data();
    const std::uint8_t* const end = begin + run.bytes.size();
    for (const std::uint8_t* from = begin;; ++from) {
      from = static_cast<const std::uint8_t*>(
          memmem(from, static_cast<std::size_t>(end - from), bytes.data(), bytes.size()));
      if (from == nullptr) break;
      places.push_back({run.from + static_cast<std::uint64_t>(from - begin), run.mapping});
    }
  }
  return places;
}

std::span<const std::uint8_t> ProcessImage::at(std::uint64_t address, std::size_t size) const {
  const auto run = std::ranges::find_if(runs_, [&](const Run& candidate) {
    return address >= candidate.from && address - candidate.from < candidate.bytes.size() &&
           size <= candidate.bytes.size() - (address - candidate.from);
  });
  if (run == runs_.end()) return {};
  return {run->bytes.data() + (address - run->from), size};
}
