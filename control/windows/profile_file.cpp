#include "control/profile_file.h"

#include "control/private_file.h"
#include "control/windows/handles.h"
#include "control/windows/wide_text.h"

long profile_file::number(const std::filesystem::path& path, const std::string& section,
                          const std::string& key, long otherwise) {
  if (!trusted_or_absent(path)) return otherwise;
  return static_cast<long>(GetPrivateProfileIntW(to_wide(section).c_str(), to_wide(key).c_str(),
                                                 otherwise, path.c_str()));
}

bool profile_file::set(const std::filesystem::path& path, const std::string& section,
                       const std::string& key, const std::string& value) {
  return ensure_private_file(path) &&
         WritePrivateProfileStringW(to_wide(section).c_str(), to_wide(key).c_str(),
                                    to_wide(value).c_str(), path.c_str()) != FALSE;
}
