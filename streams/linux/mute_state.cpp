#include "streams/mute_state.h"

#include "control/private_file.h"

bool write_mute_state(const std::filesystem::path& path, const std::string& text) {
  return write_private_file(path, text.data(), text.size());
}
