#include "tests/support/vectors.h"

#include <fstream>
#include <stdexcept>

#include "connection/secure.h"

namespace vectors {

nlohmann::json load(const std::string& file_name) {
  const std::string path = std::string(LUND_SOURCE_DIR "/tests/vectors/") + file_name;
  std::ifstream file(path);
  if (!file) throw std::runtime_error("no vectors at " + path);
  return nlohmann::json::parse(file);
}

nlohmann::json load_list(const std::string& file_name, const char* list) {
  return load(file_name).at(list);
}

bytes from_hex(const std::string& text) {
  bytes out(text.size() / 2);
  if (lund_hex_decode(out.data(), out.size(), text.c_str()) != 0)
    throw std::runtime_error("not hexadecimal: " + text);
  return out;
}

std::string to_hex(std::span<const std::uint8_t> data) {
  std::string out(2 * data.size() + 1, '\0');
  lund_hex_encode(out.data(), data.data(), data.size());
  out.pop_back();
  return out;
}

}  // namespace vectors
