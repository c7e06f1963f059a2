#include "apps/client/json_report.h"

#include <cmath>
#include <fstream>

double rounded(double value) {
  return std::round(value * 1000) / 1000;
}

const char* codec_name(std::uint8_t codec) {
  return codec == 1 ? "HEVC" : "H.264";
}

bool write_json(const std::filesystem::path& path, const nlohmann::json& json, std::string* error) {
  std::ofstream file(path, std::ios::trunc);
  file << json.dump(2) << '\n';
  file.close();
  if (!file) *error = "cannot write " + path.string();
  return static_cast<bool>(file);
}
