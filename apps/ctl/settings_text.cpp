#include "apps/ctl/settings_text.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <span>

#include "apps/ctl/shown_text.h"
#include "control/host_commands.h"

namespace ctl {

using host_service::Settings;

namespace {

template <auto Field>
void store(Settings& settings, std::uint32_t value) {
  auto& field = settings.*Field;
  field = static_cast<std::remove_reference_t<decltype(field)>>(value);
}
template <auto Field>
std::uint32_t load(const Settings& settings) {
  return settings.*Field;
}

constexpr const char* CODECS[] = {"hevc", "h264"};
constexpr const char* SWITCH[] = {"off", "on"};
constexpr const char* VIRTUAL_DISPLAY[] = {"off", "auto", "always"};

// In the order in which they are shown.
struct Setting {
  const char* name;
  std::uint32_t low, high;
  std::span<const char* const> words;  // of low to high; none: a number
  const char* unit;
  void (*store)(Settings&, std::uint32_t);
  std::uint32_t (*load)(const Settings&);
};
template <auto Field>
constexpr Setting number(const char* name, std::uint32_t low, std::uint32_t high,
                         const char* unit) {
  return {name, low, high, {}, unit, store<Field>, load<Field>};
}
template <auto Field>
constexpr Setting choice(const char* name, std::uint32_t low, std::span<const char* const> words) {
  const auto high = low + static_cast<std::uint32_t>(words.size()) - 1;
  return {name, low, high, words, "", store<Field>, load<Field>};
}
constexpr Setting SETTINGS[] = {
    number<&Settings::port>("port", 1, 65'535, ", a UDP port"),
    number<&Settings::fps>("fps", 1, 240, " pictures a second"),
    number<&Settings::bitrate_kbps>("bitrate_kbps", 500, 500'000, " kbit/s"),
    choice<&Settings::codec>("codec", 1, CODECS),
    choice<&Settings::audio>("audio", 0, SWITCH),
    choice<&Settings::virtual_display>("virtual_display", 0, VIRTUAL_DISPLAY),
    choice<&Settings::mac_keys>("mac_keys", 0, SWITCH),
    number<&Settings::max_datagram>("max_datagram", 512, 1'400, " bytes"),
};

const Setting* find(const std::string& name) {
  const auto* found = std::find_if(std::begin(SETTINGS), std::end(SETTINGS),
                                   [&](const Setting& setting) { return name == setting.name; });
  return found == std::end(SETTINGS) ? nullptr : found;
}

std::string range_of(const Setting& setting) {
  if (setting.words.empty())
    return std::to_string(setting.low) + " to " + std::to_string(setting.high) + setting.unit;
  std::string words = setting.words[0];
  for (std::size_t i = 1; i < setting.words.size(); ++i)
    words += (i + 1 < setting.words.size() ? ", " : " or ") + std::string(setting.words[i]);
  return words;
}

std::optional<std::uint32_t> parse_value(const Setting& setting, const std::string& text) {
  if (setting.words.empty()) return parse_number(text, setting.low, setting.high);
  for (std::size_t i = 0; i < setting.words.size(); ++i)
    if (text == setting.words[i]) return setting.low + static_cast<std::uint32_t>(i);
  return std::nullopt;
}

const char* word_of(const Setting& setting, const Settings& settings) {
  return setting.words[setting.load(settings) - setting.low];
}

bool wanted(const Setting& setting, const std::vector<std::string>& names) {
  return names.empty() || std::find(names.begin(), names.end(), setting.name) != names.end();
}

std::string name_of(const std::string& assignment) {
  return assignment.substr(0, assignment.find('='));
}

// What is wrong with it; otherwise it is done.
std::string assign(const std::string& assignment, Settings* settings) {
  const std::string name = name_of(assignment);
  const Setting* setting = find(name);
  if (!setting) return "there is no setting \"" + shown_text(name) + "\"";
  if (name.size() == assignment.size()) return name + ": say " + name + "=VALUE";
  const auto value = parse_value(*setting, assignment.substr(name.size() + 1));
  if (!value) return name + " must be " + range_of(*setting);
  setting->store(*settings, *value);
  return {};
}

}  // namespace

std::string settings_help() {
  std::string help;
  for (const Setting& setting : SETTINGS)
    help += "  " + std::string(setting.name) + ": " + range_of(setting) + "\n";
  return help;
}

bool is_setting(const std::string& name) {
  return find(name) != nullptr;
}

std::string setting_lines(const Settings& settings, const std::vector<std::string>& names) {
  std::string lines;
  for (const Setting& setting : SETTINGS) {
    if (!wanted(setting, names)) continue;
    lines += std::string(setting.name) + "=";
    lines +=
        setting.words.empty() ? std::to_string(setting.load(settings)) : word_of(setting, settings);
    lines += "\n";
  }
  return lines;
}

nlohmann::ordered_json setting_values(const Settings& settings,
                                      const std::vector<std::string>& names) {
  nlohmann::ordered_json values = nlohmann::ordered_json::object();
  for (const Setting& setting : SETTINGS) {
    if (!wanted(setting, names)) continue;
    if (setting.words.empty())
      values[setting.name] = setting.load(settings);
    else
      values[setting.name] = word_of(setting, settings);
  }
  return values;
}

std::vector<std::string> differing_settings(const Settings& a, const Settings& b) {
  std::vector<std::string> names;
  for (const Setting& setting : SETTINGS)
    if (setting.load(a) != setting.load(b)) names.emplace_back(setting.name);
  return names;
}

std::string assign_settings(const std::vector<std::string>& assignments, Settings* settings) {
  Settings changed = *settings;
  std::set<std::string> seen;
  std::string errors;
  for (const std::string& assignment : assignments) {
    std::string error = assign(assignment, &changed);
    if (error.empty() && !seen.insert(name_of(assignment)).second)
      error = name_of(assignment) + " is named twice";
    if (!error.empty()) errors += (errors.empty() ? "" : "; ") + error;
  }
  if (errors.empty()) *settings = changed;
  return errors;
}

bool assigns_all(const std::vector<std::string>& assignments) {
  return std::all_of(std::begin(SETTINGS), std::end(SETTINGS), [&](const Setting& setting) {
    return std::any_of(assignments.begin(), assignments.end(), [&](const std::string& assignment) {
      return name_of(assignment) == setting.name;
    });
  });
}

}  // namespace ctl
