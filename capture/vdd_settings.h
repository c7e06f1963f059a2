// The settings file of the virtual display driver, read and changed as text: its users edit it by
// hand, so what isn't changed stays as it was byte for byte, comments and layout included. And the
// choice among the modes that a monitor offers. Pure.
//
// A number is what strtod makes of an element's content in the "C" locale, without blanks, tabs,
// CR and LF around it, and rounded by adding 0.5 and cutting. One that isn't finite, that a double
// or 32 bits can't hold, or that has anything behind it is invalid: -1.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct DisplayMode {
  std::int32_t width = 0;    // pixels
  std::int32_t height = 0;   // pixels
  std::int32_t refresh = 0;  // Hz
  bool operator==(const DisplayMode&) const = default;
};

namespace vddxml {

// The content of the first element `name` that lies whole in [from, to), its closing tag included.
// No attributes, no self-closing tags, no nesting of one name, no comments. False leaves the
// outputs as they were.
bool element(const std::string& xml, const std::string& name, std::uint64_t from, std::uint64_t to,
             std::uint64_t* inner_begin, std::uint64_t* inner_end);

}  // namespace vddxml

int vdd_xml_monitor_count(const std::string& xml);  // -1 when missing or invalid

// Puts another number there, blanks around it kept. Nothing happens where there is no such element.
void vdd_xml_set_monitor_count(std::string* xml, int count);

// Every resolution with its own rate, then each of them with each global rate. Duplicates stay.
std::vector<DisplayMode> vdd_xml_modes(const std::string& xml);

// Adds a resolution at the end of the list, indented as the list's closing tag is. Nothing happens
// where there is none.
void vdd_xml_add_mode(std::string* xml, int width, int height, int refresh);

// The index of the mode nearest to a wish: of its size, else the largest within it, those of about
// its shape first, else the smallest. Of rates, the next above is better than any below. -1 when
// there are no modes.
int pick_best_mode(const std::vector<DisplayMode>& modes, int width, int height, int refresh);
