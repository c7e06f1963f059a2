// Runs a fuzz target over every file of the folders given, so that a corpus is an ordinary test
// where libFuzzer isn't built in. Fails when a folder is missing or no file is found: an empty
// replay proves nothing.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

// The files below a folder in a fixed order; none when it can't be read.
std::vector<fs::path> files_of(const fs::path& folder) {
  std::vector<fs::path> files;
  std::error_code error;
  for (fs::recursive_directory_iterator at(folder, error), end; !error && at != end;
       at.increment(error))
    if (at->is_regular_file()) files.push_back(at->path());
  if (error) files.clear();
  std::sort(files.begin(), files.end());
  return files;
}

bool replay(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  if (!file) return false;
  // An exact copy on the heap, so that a sanitizer sees each byte read beyond it.
  const std::vector<std::uint8_t> input(bytes.begin(), bytes.end());
  LLVMFuzzerTestOneInput(input.data(), input.size());
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t replayed = 0;
  for (int i = 1; i < argc; ++i) {
    const std::vector<fs::path> files = files_of(argv[i]);
    if (files.empty()) {
      std::fprintf(stderr, "no files in %s\n", argv[i]);
      return 1;
    }
    for (const fs::path& path : files) {
      if (!replay(path)) {
        std::fprintf(stderr, "can't read %s\n", path.string().c_str());
        return 1;
      }
      ++replayed;
    }
  }
  std::printf("replayed %zu inputs\n", replayed);
  return replayed > 0 ? 0 : 1;
}
