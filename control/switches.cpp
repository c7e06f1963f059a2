#include "control/switches.h"

#include "control/private_file.h"
#include "control/profile_file.h"
#include "control/store_platform.h"

namespace {

using store_platform::Read;

constexpr const char* PROFILE_NAME = "host.ini";
constexpr const char* PROFILE_SECTION = "settings";
constexpr const char* MUTE_HOST_KEY = "mute_host";
constexpr const char* CLIPBOARD_NAME = "clipboard_sync";
constexpr std::size_t FILE_LIMIT_BYTES = 65'536;

}  // namespace

// Without a directory nothing is read or written: never a file in whatever directory is the current
// one.

bool load_mute_host(const std::filesystem::path& directory) {
  return directory.empty() ||
         profile_file::number(directory / PROFILE_NAME, PROFILE_SECTION, MUTE_HOST_KEY, 1) != 0;
}

bool save_mute_host(const std::filesystem::path& directory, bool on) {
  if (directory.empty()) return false;
  store_platform::make_directory(directory);
  return profile_file::set(directory / PROFILE_NAME, PROFILE_SECTION, MUTE_HOST_KEY,
                           on ? "1" : "0");
}

bool load_clipboard_sync(const std::filesystem::path& directory) {
  std::string text;
  return directory.empty() ||
         read_private_file(directory / CLIPBOARD_NAME, FILE_LIMIT_BYTES, &text) != Read::Ok ||
         !text.starts_with('0');
}

bool save_clipboard_sync(const std::filesystem::path& directory, bool on) {
  if (directory.empty()) return false;
  store_platform::make_directory(directory);
  const std::string text = on ? "1\n" : "0\n";
  return write_private_file(directory / CLIPBOARD_NAME, text.data(), text.size());
}
