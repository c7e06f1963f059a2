#include "control/linux/profile_text.h"

#include <algorithm>
#include <string_view>

#include "control/text.h"

namespace {

// Where a key of a section stands in a profile's text, and where it would.
struct Place {
  bool section = false;
  bool key = false;
  std::size_t value = 0;     // of the key, behind its '='
  std::size_t line_end = 0;  // of the key's line or, without the key, of the section's last: before
                             // CR or LF
};

Place find_place(std::string_view text, std::string_view section, std::string_view key) {
  Place place;
  bool inside = false;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find('\n', begin), text.size());
    std::string_view line = text.substr(begin, end - begin);
    if (line.ends_with('\r')) line.remove_suffix(1);
    const std::string_view content = trimmed(line);
    if (content.starts_with('[') && content.ends_with(']')) {
      if (place.section) return place;
      inside = same_but_for_case(trimmed(content.substr(1, content.size() - 2)), section);
      place.section = inside;
    }
    if (inside && !content.empty()) place.line_end = begin + line.size();
    const std::size_t equals = line.find('=');
    if (inside && equals != std::string_view::npos &&
        same_but_for_case(trimmed(line.substr(0, equals)), key)) {
      place.key = true;
      place.value = begin + equals + 1;
      return place;
    }
    begin = end + 1;
  }
  return place;
}

}  // namespace

std::optional<std::string> profile_value(const std::string& text, const std::string& section,
                                         const std::string& key) {
  const Place place = find_place(text, section, key);
  if (!place.key) return std::nullopt;
  return std::string(
      trimmed(std::string_view(text).substr(place.value, place.line_end - place.value)));
}

std::string with_profile_value(const std::string& text, const std::string& section,
                               const std::string& key, const std::string& value) {
  const Place place = find_place(text, section, key);
  std::string changed = text;
  if (place.key) return changed.replace(place.value, place.line_end - place.value, value);
  const std::string line_end = text.find("\r\n") == std::string::npos ? "\n" : "\r\n";
  const std::string line = key + "=" + value;
  if (place.section) {
    const bool last = place.line_end == text.size();
    return changed.insert(place.line_end, line_end + line + (last ? line_end : ""));
  }
  if (!text.empty() && !text.ends_with('\n')) changed += line_end;
  return changed + "[" + section + "]" + line_end + line + line_end;
}
