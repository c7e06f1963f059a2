#include "capture/vdd_settings.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>
#include <string_view>

#include "control/text.h"

namespace {

constexpr const char* RESOLUTIONS_END = "</resolutions>";
constexpr std::string_view INDENT = "    ";
constexpr int INVALID = -1;

constexpr double ASPECT_TOLERANCE = 0.02;
constexpr double ASPECT_BONUS = 1e12;  // above every picture's size: shape goes before size
constexpr double PIXEL_WEIGHT = 1000.0;
constexpr std::int64_t RATE_TOO_LOW_PENALTY = 1000;
constexpr std::int64_t RATE_TOO_LOW_FACTOR = 4;

struct Range {
  std::uint64_t begin = 0;
  std::uint64_t end = 0;
};

std::optional<Range> find_element(const std::string& xml, const char* name, Range within) {
  Range inner;
  if (!vddxml::element(xml, name, within.begin, within.end, &inner.begin, &inner.end))
    return std::nullopt;
  return inner;
}

Range whole(const std::string& xml) {
  return {0, xml.size()};
}

std::string_view content(const std::string& xml, Range range) {
  return std::string_view(xml).substr(range.begin, range.end - range.begin);
}

// strtod of the "C" locale, the whole text: std::from_chars knows no other locale, but takes
// neither white space nor '+' nor "0x".
std::optional<double> c_number(std::string_view text) {
  text.remove_prefix(std::min(text.find_first_not_of(" \t\n\v\f\r"), text.size()));
  const bool negative = text.starts_with('-');
  if (negative || text.starts_with('+')) text.remove_prefix(1);
  if (text.starts_with('-')) return std::nullopt;
  const bool hex = text.starts_with("0x") || text.starts_with("0X");
  if (hex) text.remove_prefix(2);
  if (hex && text.starts_with('-')) return std::nullopt;
  double value = 0;
  const auto [stop, error] =
      std::from_chars(text.data(), text.data() + text.size(), value,
                      hex ? std::chars_format::hex : std::chars_format::general);
  if (error != std::errc() || stop != text.data() + text.size()) return std::nullopt;
  return negative ? -value : value;
}

int number(std::string_view text) {
  const std::optional<double> value = c_number(trimmed(text));
  if (!value) return INVALID;
  const double rounded = std::trunc(*value + 0.5);
  const bool fits = rounded >= std::numeric_limits<std::int32_t>::min() &&
                    rounded <= std::numeric_limits<std::int32_t>::max();  // never so for NaN
  return fits ? static_cast<int>(rounded) : INVALID;
}

int number_or(const std::string& xml, const char* name, Range within, int missing) {
  const std::optional<Range> inner = find_element(xml, name, within);
  return inner ? number(content(xml, *inner)) : missing;
}

// Calls `visit` with the content of each element `name` in there, in order.
template <typename Visit>
void each_element(const std::string& xml, const char* name, Range within, Visit visit) {
  while (const std::optional<Range> inner = find_element(xml, name, within)) {
    visit(*inner);
    within.begin = inner->end;
  }
}

std::optional<Range> monitor_count_range(const std::string& xml) {
  const std::optional<Range> monitors = find_element(xml, "monitors", whole(xml));
  return monitors ? find_element(xml, "count", *monitors) : std::nullopt;
}

std::vector<int> global_rates(const std::string& xml) {
  std::vector<int> rates;
  const std::optional<Range> global = find_element(xml, "global", whole(xml));
  if (!global) return rates;
  each_element(xml, "g_refresh_rate", *global, [&](Range inner) {
    const int rate = number(content(xml, inner));
    if (rate > 0) rates.push_back(rate);
  });
  return rates;
}

std::int64_t rate_penalty(int rate, int wanted) {
  const std::int64_t above = std::int64_t{rate} - wanted;
  return above >= 0 ? above : -above * RATE_TOO_LOW_FACTOR + RATE_TOO_LOW_PENALTY;
}

std::int64_t area(const DisplayMode& mode) {
  return std::int64_t{mode.width} * mode.height;
}

// The earliest of the modes that `fits` admits with the smallest `cost`; -1 when it admits none.
template <typename Fits, typename Cost>
int cheapest(const std::vector<DisplayMode>& modes, Fits fits, Cost cost) {
  int best = -1;
  for (std::size_t i = 0; i < modes.size(); ++i) {
    if (!fits(modes[i])) continue;
    if (best < 0 || cost(modes[i]) < cost(modes[static_cast<std::size_t>(best)]))
      best = static_cast<int>(i);
  }
  return best;
}

}  // namespace

bool vddxml::element(const std::string& xml, const std::string& name, std::uint64_t from,
                     std::uint64_t to, std::uint64_t* inner_begin, std::uint64_t* inner_end) {
  const std::string_view text = std::string_view(xml).substr(0, to);
  const std::string opening = "<" + name + ">";
  const std::size_t start = text.find(opening, from);
  if (start == std::string_view::npos) return false;
  const std::size_t end = text.find("</" + name + ">", start + opening.size());
  if (end == std::string_view::npos) return false;
  *inner_begin = start + opening.size();
  *inner_end = end;
  return true;
}

int vdd_xml_monitor_count(const std::string& xml) {
  const std::optional<Range> range = monitor_count_range(xml);
  return range ? number(content(xml, *range)) : INVALID;
}

void vdd_xml_set_monitor_count(std::string* xml, int count) {
  const std::optional<Range> range = monitor_count_range(*xml);
  if (!range) return;
  const std::string_view old = trimmed(content(*xml, *range));
  const std::size_t at =
      old.empty() ? range->begin : static_cast<std::size_t>(old.data() - xml->data());
  xml->replace(at, old.size(), std::to_string(count));
}

std::vector<DisplayMode> vdd_xml_modes(const std::string& xml) {
  std::vector<DisplayMode> modes;
  const std::optional<Range> list = find_element(xml, "resolutions", whole(xml));
  if (!list) return modes;
  std::vector<DisplayMode> resolutions;
  each_element(xml, "resolution", *list, [&](Range inner) {
    const DisplayMode mode = {number_or(xml, "width", inner, 0), number_or(xml, "height", inner, 0),
                              number_or(xml, "refresh_rate", inner, 0)};
    if (mode.width <= 0 || mode.height <= 0) return;
    resolutions.push_back(mode);
    if (mode.refresh > 0) modes.push_back(mode);
  });
  for (const int rate : global_rates(xml))
    for (const DisplayMode& resolution : resolutions)
      modes.push_back({resolution.width, resolution.height, rate});
  return modes;
}

void vdd_xml_add_mode(std::string* xml, int width, int height, int refresh) {
  const std::size_t closing = xml->find(RESOLUTIONS_END);
  if (closing == std::string::npos) return;
  const std::size_t line = xml->rfind('\n', closing) + 1;  // npos + 1 is the text's start
  std::string prefix = xml->substr(line, closing - line);
  if (prefix.find_first_not_of(" \t") != std::string::npos) prefix.clear();

  const auto line_of = [&](const char* name, int value) {
    return prefix + "        <" + name + ">" + std::to_string(value) + "</" + name + ">\n";
  };
  std::string added(INDENT);  // behind the prefix that stands there
  added += "<resolution>\n";
  added += line_of("width", width);
  added += line_of("height", height);
  added += line_of("refresh_rate", refresh);
  added.append(prefix).append(INDENT).append("</resolution>\n").append(prefix);
  xml->insert(closing, added);
}

int pick_best_mode(const std::vector<DisplayMode>& modes, int width, int height, int refresh) {
  const auto penalty = [=](const DisplayMode& mode) { return rate_penalty(mode.refresh, refresh); };
  const int of_the_size = cheapest(
      modes, [=](const DisplayMode& mode) { return mode.width == width && mode.height == height; },
      penalty);
  if (of_the_size >= 0) return of_the_size;

  const double aspect = height < 1 ? 1.0 : static_cast<double>(width) / height;
  const auto score = [=](const DisplayMode& mode) {
    const double shape = static_cast<double>(mode.width) / mode.height;
    const bool alike = std::fabs(shape - aspect) / aspect < ASPECT_TOLERANCE;
    return static_cast<double>(mode.width) * mode.height * PIXEL_WEIGHT +
           (alike ? ASPECT_BONUS : 0.0) - static_cast<double>(penalty(mode));
  };
  const int within = cheapest(
      modes,
      [=](const DisplayMode& mode) {
        return mode.width <= width && mode.height <= height && mode.height >= 1;
      },
      [&](const DisplayMode& mode) { return -score(mode); });
  if (within >= 0) return within;

  return cheapest(
      modes, [](const DisplayMode&) { return true; }, area);
}
