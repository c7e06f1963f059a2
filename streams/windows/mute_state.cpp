#include "streams/mute_state.h"

#include <io.h>

#include <cstdio>

#include "control/private_file.h"
#include "control/windows/handles.h"

namespace {

using File = Owned<NullableKind<std::FILE*, std::fclose>>;

bool write_to_disk(const std::filesystem::path& path, const std::string& text) {
  File file(_wfopen(path.c_str(), L"r+b"));
  return file && std::fwrite(text.data(), 1, text.size(), file.get()) == text.size() &&
         std::fflush(file.get()) == 0 && _commit(_fileno(file.get())) == 0 &&
         std::fclose(file.release()) == 0;
}

}  // namespace

bool write_mute_state(const std::filesystem::path& path, const std::string& text) {
  std::filesystem::path fresh = path;
  fresh += L".new";
  // A crash may have left one with half a text.
  if (store_platform::remove_file(fresh) && ensure_private_file(fresh) &&
      write_to_disk(fresh, text) && store_platform::replace_file(fresh, path))
    return true;
  store_platform::remove_file(fresh);
  return false;
}
