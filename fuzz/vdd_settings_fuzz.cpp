// The virtual display driver's settings over any bytes: what is added is found again, whatever else
// stood there stays, and numbers are strtod's. The input: the wished-for mode and a new count, two
// places in the text, then the text.
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <string>
#include <string_view>

#include "capture/vdd_settings.h"
#include "control/text.h"
#include "fuzz/input.h"
#include "fuzz/require.h"

namespace {

constexpr std::uint64_t UNTOUCHED = 0xF00D;
constexpr std::string_view RESOLUTIONS_END = "</resolutions>";

int count_of(const std::string& content) {
  return vdd_xml_monitor_count("<monitors><count>" + content + "</count></monitors>");
}

void check_element(const std::string& text, const std::string& name, std::uint64_t from,
                   std::uint64_t to) {
  std::uint64_t begin = UNTOUCHED, end = UNTOUCHED;
  if (!vddxml::element(text, name, from, to, &begin, &end)) {
    require(begin == UNTOUCHED && end == UNTOUCHED, "without an element nothing is set");
    return;
  }
  const std::string opening = "<" + name + ">", closing = "</" + name + ">";
  require(from + opening.size() <= begin && begin <= end && end + closing.size() <= to &&
              to <= text.size(),
          "an element lies within its bounds");
  require(text.compare(begin - opening.size(), opening.size(), opening) == 0, "it begins");
  require(text.compare(end, closing.size(), closing) == 0, "it ends");
  require(text.find(closing, begin) == end, "it ends at its first end");
}

// This program's locale is "C". What a double can't hold is invalid, the very small included.
void check_number(const std::string& text) {
  if (text.find("</count>") != std::string::npos) return;
  const std::string stripped(trimmed(text));
  char* stop = nullptr;
  errno = 0;
  const double value = std::strtod(stripped.c_str(), &stop);
  const bool whole = !stripped.empty() && stop == stripped.c_str() + stripped.size();
  const double rounded = std::trunc(value + 0.5);
  const bool valid = whole && rounded >= -2147483648.0 && rounded <= 2147483647.0;
  const int wanted = valid ? static_cast<int>(rounded) : -1;
  const int count = count_of(text);
  require(count == wanted || (errno == ERANGE && count == -1), "a number is strtod's");
}

void check_count(const std::string& text, int count) {
  std::string changed = text;
  vdd_xml_set_monitor_count(&changed, count);
  std::uint64_t begin = 0, end = 0;
  if (!vddxml::element(text, "monitors", 0, text.size(), &begin, &end) ||
      !vddxml::element(text, "count", begin, end, &begin, &end)) {
    require(changed == text && vdd_xml_monitor_count(text) == -1, "without a count there is none");
    return;
  }
  require(vdd_xml_monitor_count(changed) == count, "a count that is set is read");
  require(changed.compare(0, begin, text, 0, begin) == 0, "what is ahead of it stays");
  const std::size_t rest = text.size() - end;
  require(changed.size() >= begin + rest &&
              changed.compare(changed.size() - rest, rest, text, end, rest) == 0,
          "what is behind it stays");
}

// Whether what stands ahead of the first end of the list leaves an addition there an element of
// its own: the list is open, and each resolution in it is closed.
bool list_takes_more(const std::string& text) {
  std::uint64_t begin = 0, end = 0;
  if (!vddxml::element(text, "resolutions", 0, text.size(), &begin, &end) ||
      end != text.find(RESOLUTIONS_END))
    return false;
  std::uint64_t inner = 0, inner_end = begin;
  while (vddxml::element(text, "resolution", inner_end, end, &inner, &inner_end)) {
  }
  const std::string_view rest = std::string_view(text).substr(inner_end, end - inner_end);
  return rest.find("<resolution>") == std::string_view::npos;
}

bool holds(const std::vector<DisplayMode>& modes, const DisplayMode& mode) {
  for (const DisplayMode& other : modes)
    if (other == mode) return true;
  return false;
}

void check_modes(const std::string& text, const DisplayMode& wanted) {
  const std::vector<DisplayMode> before = vdd_xml_modes(text);
  for (const DisplayMode& mode : before)
    require(mode.width > 0 && mode.height > 0 && mode.refresh > 0, "a mode has a size and a rate");

  std::string changed = text;
  vdd_xml_add_mode(&changed, wanted.width, wanted.height, wanted.refresh);
  const std::size_t closing = text.find(RESOLUTIONS_END);
  if (closing == std::string::npos) {
    require(changed == text, "without a list nothing is added");
    return;
  }
  const std::size_t added = changed.size() - text.size();
  require(changed.compare(0, closing, text, 0, closing) == 0, "what is ahead stays");
  require(changed.compare(closing + added, std::string::npos, text, closing) == 0,
          "the list's end and what is behind it stay");
  if (!list_takes_more(text)) return;
  const std::vector<DisplayMode> after = vdd_xml_modes(changed);
  require(holds(after, wanted), "a mode that was added is found");
  for (const DisplayMode& mode : before) require(holds(after, mode), "and so is every other");
}

void check_pick(const std::vector<DisplayMode>& modes, const DisplayMode& wanted) {
  const int best = pick_best_mode(modes, wanted.width, wanted.height, wanted.refresh);
  if (modes.empty()) {
    require(best == -1, "of nothing is nothing picked");
    return;
  }
  require(best >= 0 && static_cast<std::size_t>(best) < modes.size(), "a mode is picked");
  const DisplayMode& picked = modes[static_cast<std::size_t>(best)];
  const auto is_within = [&](const DisplayMode& mode) {
    return mode.width <= wanted.width && mode.height <= wanted.height && mode.height >= 1;
  };
  for (const DisplayMode& mode : modes) {
    const bool of_the_size = mode.width == wanted.width && mode.height == wanted.height;
    require(!of_the_size || (picked.width == wanted.width && picked.height == wanted.height),
            "the size goes before all");
    require(!is_within(mode) || is_within(picked) || picked == mode ||
                (picked.width == wanted.width && picked.height == wanted.height),
            "no larger one while one fits");
    require(mode != wanted || picked == wanted, "what is offered is taken");
  }
}

DisplayMode mode_of(Input& input) {
  const auto s32 = [&] { return static_cast<std::int32_t>(input.u16() | input.u16() << 16); };
  const std::int32_t width = s32(), height = s32();
  return {width, height, s32()};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const DisplayMode small = {input.byte() + 1, input.byte() + 1, input.byte() + 1};
  const DisplayMode any = mode_of(input);
  const int count = static_cast<int>(input.u16());
  const std::uint64_t from = input.u16(), to = input.u16();
  const Input::Bytes rest = input.bytes(size);
  const std::string text(rest.begin(), rest.end());

  for (const char* name : {"monitors", "count", "resolution", "a", ""}) {
    check_element(text, name, 0, text.size());
    if (to <= text.size()) check_element(text, name, from, to);
  }
  check_number(text);
  check_count(text, count);
  check_modes(text, small);
  check_pick(vdd_xml_modes(text), any);
  check_pick(vdd_xml_modes(text), small);
  Input numbers(rest.data(), rest.size());
  std::vector<DisplayMode> modes;
  while (!numbers.done()) modes.push_back(mode_of(numbers));
  check_pick(modes, any);
  check_pick(modes, small);
  return 0;
}
