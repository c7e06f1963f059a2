#include "control/profile_file.h"

#include <cstdlib>

#include "control/linux/profile_text.h"
#include "control/private_file.h"

namespace {

using store_platform::Read;

constexpr std::size_t FILE_LIMIT_BYTES = 65'536;

}  // namespace

long profile_file::number(const std::filesystem::path& path, const std::string& section,
                          const std::string& key, long otherwise) {
  std::string text;
  if (read_private_file(path, FILE_LIMIT_BYTES, &text) != Read::Ok) return otherwise;
  const auto value = profile_value(text, section, key);
  return value ? std::strtol(value->c_str(), nullptr, 10) : otherwise;
}

bool profile_file::set(const std::filesystem::path& path, const std::string& section,
                       const std::string& key, const std::string& value) {
  std::string text;
  if (read_private_file(path, FILE_LIMIT_BYTES, &text) == Read::Failed) return false;
  const std::string changed = with_profile_value(text, section, key, value);
  return write_private_file(path, changed.data(), changed.size());
}
