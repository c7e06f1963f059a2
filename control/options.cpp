#include "control/options.h"

#include <cerrno>
#include <cstdlib>

namespace {

constexpr std::size_t PIN_MAX_CHARACTERS = 16;

struct Flag {
  const char* name;
  bool HostOptions::*field;
  bool value;
};

constexpr Flag FLAGS[] = {
    {"--no-audio", &HostOptions::audio, false},
    {"--no-mute-host", &HostOptions::no_mute_host, true},
    {"--mac-keys", &HostOptions::mac_keys, true},
    {"--no-mac-keys", &HostOptions::mac_keys, false},
    {"--console", &HostOptions::console, true},
    {"--list-displays", &HostOptions::list_displays, true},
    {"--help", &HostOptions::help, true},
    {"-h", &HostOptions::help, true},
    {"/?", &HostOptions::help, true},
};

struct Number {
  const char* name;
  long low;
  long high;
  void (*store)(HostOptions&, long);
};

constexpr Number NUMBERS[] = {
    {"--port", 1, 65'535,
     [](HostOptions& options, long value) { options.port = static_cast<std::uint16_t>(value); }},
    {"--fps", 1, 240,
     [](HostOptions& options, long value) { options.fps = static_cast<std::int32_t>(value); }},
    {"--bitrate-kbps", 500, 500'000,
     [](HostOptions& options, long value) {
       options.bitrate_kbps = static_cast<std::int32_t>(value);
     }},
    {"--fec", 0, 200,
     [](HostOptions& options, long value) {
       options.fec_percent = static_cast<std::int32_t>(value);
     }},
    {"--max-datagram", 106, 1472,
     [](HostOptions& options, long value) {
       options.max_datagram = static_cast<std::int32_t>(value);
     }},
};

// `value` is null when the option is the last argument. The result is the message, empty for none.
struct Text {
  const char* name;
  std::string (*store)(HostOptions&, const std::string* value);
};

std::string store_pin(HostOptions& options, const std::string* value) {
  if (value == nullptr || value->empty() || value->size() > PIN_MAX_CHARACTERS) {
    return "--pin must be 1..16 ASCII characters";
  }
  for (const char character : *value) {
    if (character < 0x21 || character > 0x7E) {
      return "--pin must be 1..16 printable ASCII characters";
    }
  }
  options.pin = *value;
  return {};
}

std::string store_display(HostOptions& options, const std::string* value) {
  if (value == nullptr) return "missing value for --display";
  options.display = *value;
  return {};
}

std::string store_codec(HostOptions& options, const std::string* value) {
  if (value == nullptr) return "missing value for --codec";
  const bool hevc = *value == "hevc" || *value == "h265";
  if (!hevc && *value != "h264" && *value != "avc") return "--codec must be hevc or h264";
  options.hevc = hevc;
  return {};
}

std::string store_encoder(HostOptions& options, const std::string* value) {
  if (value != nullptr) options.encoder = *value;
  if (value == nullptr || value->empty()) return "missing value for --encoder";
  return {};
}

std::string store_virtual_display(HostOptions& options, const std::string* value) {
  if (value == nullptr || (*value != "auto" && *value != "always" && *value != "off")) {
    return "--virtual-display must be auto, always or off";
  }
  options.virtual_display = *value;
  return {};
}

constexpr Text TEXTS[] = {
    {"--pin", store_pin},
    {"--display", store_display},
    {"--codec", store_codec},
    {"--encoder", store_encoder},
    {"--virtual-display", store_virtual_display},
};

std::string store_number(const Number& number, HostOptions& options, const std::string* value) {
  char* end = nullptr;
  long parsed = number.low - 1;
  errno = 0;
  if (value != nullptr && !value->empty()) parsed = std::strtol(value->c_str(), &end, 10);
  if (end == nullptr || end != value->c_str() + value->size() || errno != 0 ||
      parsed < number.low || parsed > number.high) {
    return std::string(number.name) + " must be " + std::to_string(number.low) + ".." +
           std::to_string(number.high);
  }
  number.store(options, parsed);
  return {};
}

template <typename Entry, std::size_t N>
const Entry* find(const Entry (&table)[N], const std::string& name) {
  for (const Entry& entry : table) {
    if (name == entry.name) return &entry;
  }
  return nullptr;
}

// Takes the option at `*index` and moves `*index` behind it and its value.
std::string take(const std::vector<std::string>& args, std::size_t* index, HostOptions& options) {
  const std::string& name = args[(*index)++];
  if (const Flag* flag = find(FLAGS, name)) {
    options.*flag->field = flag->value;
    return {};
  }
  const Number* number = find(NUMBERS, name);
  const Text* text = find(TEXTS, name);
  if (number == nullptr && text == nullptr) return "unknown option " + name;
  const std::string* value = *index < args.size() ? &args[(*index)++] : nullptr;
  return number != nullptr ? store_number(*number, options, value) : text->store(options, value);
}

}  // namespace

bool parse_host_options(const std::vector<std::string>& args, HostOptions* options,
                        std::string* error) {
  for (std::size_t index = 0; index < args.size();) {
    std::string message = take(args, &index, *options);
    if (message.empty()) continue;
    if (error != nullptr) *error = std::move(message);
    return false;
  }
  return true;
}
