#include "control/settings.h"

#include <stdexcept>

#include "control/keystore.h"

namespace host_app {

namespace {

constexpr const char* SETTINGS = "settings";
constexpr const char* MALFORMED = "machine settings malformed";
constexpr std::uint8_t HEVC = 1;

std::string virtual_display_text(std::uint8_t value) {
  return value == 0 ? "off" : value == 1 ? "auto" : "always";
}

}  // namespace

HostOptions load_settings() {
  host_service::Settings settings;
  std::string bytes;
  if (keystore::readHostFile(SETTINGS, &bytes) &&
      !host_service::decode_settings({bytes.begin(), bytes.end()}, &settings)) {
    keystore::failHostStore(MALFORMED);
    throw std::runtime_error(MALFORMED);
  }
  HostOptions options;
  options.machine_mode = true;
  options.port = settings.port;
  options.fps = settings.fps;
  options.bitrate_kbps = static_cast<std::int32_t>(settings.bitrate_kbps);
  options.hevc = settings.codec == HEVC;
  options.audio = settings.audio != 0;
  options.mac_keys = settings.mac_keys != 0;
  options.virtual_display = virtual_display_text(settings.virtual_display);
  options.max_datagram = settings.max_datagram;
  return options;
}

bool save_settings(const host_service::Settings& settings) {
  const std::vector<unsigned char> bytes = host_service::encode_settings(settings);
  return !bytes.empty() && keystore::writeHostFile(SETTINGS, bytes.data(), bytes.size());
}

}  // namespace host_app
