#include "capture/vdd_settings.h"

#include <gmock/gmock.h>

#include <limits>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

// As the driver's installer lays it out, and as a user may have changed it.
const std::string SETTINGS =
    "<?xml version='1.0' encoding='utf-8'?>\r\n"
    "<vdd_settings>\r\n"
    "    <!-- how many -->\r\n"
    "    <monitors>\r\n"
    "        <count>1</count>\r\n"
    "    </monitors>\r\n"
    "    <global>\r\n"
    "        <g_refresh_rate>60</g_refresh_rate>\r\n"
    "        <g_refresh_rate>120</g_refresh_rate>\r\n"
    "    </global>\r\n"
    "    <resolutions>\r\n"
    "        <resolution>\r\n"
    "            <width>1920</width>\r\n"
    "            <height>1080</height>\r\n"
    "            <refresh_rate>75</refresh_rate>\r\n"
    "        </resolution>\r\n"
    "        <resolution><width>800</width><height>600</height></resolution>\r\n"
    "    </resolutions>\r\n"
    "    <options><CustomEdid>false</CustomEdid></options>\r\n"
    "</vdd_settings>\r\n";

int count_of(const std::string& content) {
  return vdd_xml_monitor_count("<monitors><count>" + content + "</count></monitors>");
}

std::string resolutions(const std::string& content) {
  return "<resolutions>" + content + "</resolutions>";
}

std::string resolution(const std::string& width, const std::string& height,
                       const std::string& rate) {
  return "<resolution><width>" + width + "</width><height>" + height + "</height><refresh_rate>" +
         rate + "</refresh_rate></resolution>";
}

std::string with_mode(std::string xml, int width, int height, int refresh) {
  vdd_xml_add_mode(&xml, width, height, refresh);
  return xml;
}

std::string with_count(std::string xml, int count) {
  vdd_xml_set_monitor_count(&xml, count);
  return xml;
}

// The element `a` of a text, as "begin,end", or "none".
std::string element_a(const std::string& xml, std::uint64_t from, std::uint64_t to) {
  std::uint64_t begin = 77, end = 78;
  if (vddxml::element(xml, "a", from, to, &begin, &end))
    return std::to_string(begin) + "," + std::to_string(end);
  EXPECT_EQ(begin, 77u);  // untouched
  EXPECT_EQ(end, 78u);
  return "none";
}

constexpr std::uint64_t ANY = std::numeric_limits<std::uint64_t>::max();

// ---- Elements

TEST(VddXmlElement, ContentLiesBetweenTheTags) {
  EXPECT_EQ(element_a("x<a>12</a>", 0, 10), "4,6");
  EXPECT_EQ(element_a("<a></a>", 0, 7), "3,3");
  EXPECT_EQ(element_a("<a>1</a><a>2</a>", 1, 16), "11,12");
}

TEST(VddXmlElement, AnEndInTheMiddleOfTheClosingTagGivesFalse) {
  const std::string xml = "<a>1</a>";
  EXPECT_EQ(element_a(xml, 0, 8), "3,4");
  for (std::uint64_t to = 0; to < 8; ++to) EXPECT_EQ(element_a(xml, 0, to), "none") << to;
}

TEST(VddXmlElement, WithoutAClosingTagThereIsNone) {
  EXPECT_EQ(element_a("<a>1", 0, ANY), "none");
  EXPECT_EQ(element_a("</a><a>1", 0, ANY), "none");
}

TEST(VddXmlElement, AttributesAndSelfClosingTagsDoNotMatch) {
  EXPECT_EQ(element_a("<a b='c'>1</a>", 0, ANY), "none");
  EXPECT_EQ(element_a("<a/>", 0, ANY), "none");
  EXPECT_EQ(element_a("<A>1</A>", 0, ANY), "none");
}

TEST(VddXmlElement, NestingAndCommentsAreNotUnderstood) {
  EXPECT_EQ(element_a("<a><a>1</a></a>", 0, ANY), "3,7");
  EXPECT_EQ(element_a("<!--<a>1</a>--><a>2</a>", 0, ANY), "7,8");
}

TEST(VddXmlElement, PlacesBeyondTheTextAreNoPlaces) {
  EXPECT_EQ(element_a("<a>1</a>", 0, ANY), "3,4");
  EXPECT_EQ(element_a("<a>1</a>", 100, ANY), "none");
  EXPECT_EQ(element_a("<a>1</a>", ANY, ANY), "none");
  EXPECT_EQ(element_a("<a>1</a>", 5, 2), "none");
  EXPECT_EQ(element_a("", 0, 0), "none");
}

// ---- The number of monitors

TEST(VddXmlMonitorCount, BlanksAroundItDoNotCount) {
  EXPECT_EQ(count_of(" 3 "), 3);
  EXPECT_EQ(count_of("\r\n\t3\t\r\n"), 3);
}

TEST(VddXmlMonitorCount, AnythingBehindItMakesItInvalid) {
  EXPECT_EQ(count_of("3x"), -1);
  EXPECT_EQ(count_of("3 4"), -1);
  EXPECT_EQ(count_of("3\v"), -1);
  EXPECT_EQ(count_of(std::string("3\0", 2)), -1);
  EXPECT_EQ(count_of("1e"), -1);
  EXPECT_EQ(count_of("0x"), -1);
  EXPECT_EQ(count_of("3<!-- three -->"), -1);
}

TEST(VddXmlMonitorCount, NothingIsInvalid) {
  EXPECT_EQ(count_of(""), -1);
  EXPECT_EQ(count_of(" \t\r\n"), -1);
  EXPECT_EQ(count_of("-"), -1);
  EXPECT_EQ(count_of("+"), -1);
  EXPECT_EQ(count_of("--3"), -1);
  EXPECT_EQ(count_of("+-3"), -1);
  EXPECT_EQ(count_of("0x-3"), -1);
}

TEST(VddXmlMonitorCount, FractionsAreRounded) {
  EXPECT_EQ(count_of("2.5"), 3);
  EXPECT_EQ(count_of("59.94"), 60);
  EXPECT_EQ(count_of("2.4"), 2);
  EXPECT_EQ(count_of("0.4"), 0);
  EXPECT_EQ(count_of("-3"), -2);  // 0.5 is added before it is cut
}

TEST(VddXmlMonitorCount, AllForms) {
  EXPECT_EQ(count_of("+4"), 4);
  EXPECT_EQ(count_of("\v4"), 4);  // white space to strtod
  EXPECT_EQ(count_of("4."), 4);
  EXPECT_EQ(count_of(".6"), 1);
  EXPECT_EQ(count_of("3e2"), 300);
  EXPECT_EQ(count_of("0x10"), 16);
  EXPECT_EQ(count_of("0X1p4"), 16);
}

TEST(VddXmlMonitorCount, WhatIsNotFiniteOrTooLargeIsInvalid) {
  for (const char* text : {"inf", "-inf", "infinity", "nan", "nan(1)", "0xinf", "1e999", "-1e999",
                           "1e300", "2147483648", "99999999999999999999", "-2147483650"})
    EXPECT_EQ(count_of(text), -1) << text;
  EXPECT_EQ(count_of("2147483647"), 2147483647);
  EXPECT_EQ(count_of("2147483646.6"), 2147483647);
  EXPECT_EQ(count_of("-2147483648"), -2147483647);
}

TEST(VddXmlMonitorCount, OutsideOfMonitorsIsNone) {
  EXPECT_EQ(vdd_xml_monitor_count("<count>3</count>"), -1);
  EXPECT_EQ(vdd_xml_monitor_count("<monitors></monitors><count>3</count>"), -1);
  EXPECT_EQ(vdd_xml_monitor_count("<count>3</count><monitors></monitors>"), -1);
  EXPECT_EQ(vdd_xml_monitor_count("<monitors><count>3</monitors></count>"), -1);
  EXPECT_EQ(vdd_xml_monitor_count(""), -1);
  EXPECT_EQ(vdd_xml_monitor_count(SETTINGS), 1);
}

TEST(VddXmlSetMonitorCount, ReplacesTheNumberAndNothingElse) {
  EXPECT_EQ(with_count("<!-- <count>9 --><monitors>\n<count> 1\t</count></monitors>x", 12),
            "<!-- <count>9 --><monitors>\n<count> 12\t</count></monitors>x");
  EXPECT_EQ(with_count("<monitors><count></count></monitors>", 2),
            "<monitors><count>2</count></monitors>");
  EXPECT_EQ(with_count("<monitors><count> \n</count></monitors>", 2),
            "<monitors><count>2 \n</count></monitors>");
  EXPECT_EQ(with_count("<count>1</count>", 2), "<count>1</count>");
}

// ---- Modes

TEST(VddXmlModes, OwnRatesComeFirstThenEachGlobalRateOverAll) {
  EXPECT_THAT(vdd_xml_modes(SETTINGS),
              ElementsAre(DisplayMode{1920, 1080, 75}, DisplayMode{1920, 1080, 60},
                          DisplayMode{800, 600, 60}, DisplayMode{1920, 1080, 120},
                          DisplayMode{800, 600, 120}));
}

TEST(VddXmlModes, TheSameRateAsOwnAndGlobalYieldsTheModeTwice) {
  EXPECT_THAT(vdd_xml_modes("<global><g_refresh_rate>60</g_refresh_rate></global>" +
                            resolutions(resolution("640", "480", "60"))),
              ElementsAre(DisplayMode{640, 480, 60}, DisplayMode{640, 480, 60}));
}

TEST(VddXmlModes, WithoutResolutionsThereAreNone) {
  EXPECT_THAT(vdd_xml_modes("<global><g_refresh_rate>60</g_refresh_rate></global>"), IsEmpty());
  EXPECT_THAT(vdd_xml_modes(resolution("640", "480", "60")), IsEmpty());
  EXPECT_THAT(vdd_xml_modes(""), IsEmpty());
}

TEST(VddXmlModes, ResolutionsWithoutASizeAreLeftOut) {
  EXPECT_THAT(
      vdd_xml_modes("<global><g_refresh_rate>60</g_refresh_rate></global>" +
                    resolutions("<resolution><width>640</width></resolution>" +
                                resolution("0", "480", "60") + resolution("640", "x", "60") +
                                resolution("-640", "480", "60"))),
      IsEmpty());
}

TEST(VddXmlModes, ARateOfNoUseIsNone) {
  EXPECT_THAT(vdd_xml_modes("<global><g_refresh_rate>0</g_refresh_rate><g_refresh_rate>x"
                            "</g_refresh_rate><g_refresh_rate>59.94</g_refresh_rate></global>" +
                            resolutions(resolution("640", "480", "0"))),
              ElementsAre(DisplayMode{640, 480, 60}));
}

TEST(VddXmlModes, ElementsOutsideOfTheirPlaceDoNotCount) {
  EXPECT_THAT(vdd_xml_modes("<g_refresh_rate>60</g_refresh_rate><global></global>" +
                            resolution("1", "1", "1") + resolutions(resolution("2", "2", "2")) +
                            resolution("3", "3", "3")),
              ElementsAre(DisplayMode{2, 2, 2}));
}

TEST(VddXmlModes, ASizeBehindTheResolutionIsNotItsOwn) {
  EXPECT_THAT(vdd_xml_modes(resolutions("<resolution><height>2</height></resolution>"
                                        "<width>1</width>" +
                                        resolution("3", "3", "3"))),
              ElementsAre(DisplayMode{3, 3, 3}));
}

TEST(VddXmlAddMode, TakesTheIndentationOfTheClosingTagAndChangesNothingElse) {
  const std::string changed = with_mode(SETTINGS, 1280, 800, 30);
  const std::string added =
      "        <resolution>\n"
      "            <width>1280</width>\n"
      "            <height>800</height>\n"
      "            <refresh_rate>30</refresh_rate>\n"
      "        </resolution>\n";
  std::string expected = SETTINGS;
  expected.insert(expected.find("    </resolutions>"), added);
  EXPECT_EQ(changed, expected);
  EXPECT_THAT(vdd_xml_modes(changed), testing::Contains(DisplayMode{1280, 800, 30}));
}

TEST(VddXmlAddMode, TabsAreAnIndentationToo) {
  EXPECT_EQ(with_mode("<resolutions>\n\t </resolutions>", 1, 2, 3),
            "<resolutions>\n\t     <resolution>\n\t         <width>1</width>\n\t         "
            "<height>2</height>\n\t         <refresh_rate>3</refresh_rate>\n\t     "
            "</resolution>\n\t </resolutions>");
}

TEST(VddXmlAddMode, AClosingTagNotOnALineOfItsOwnTakesAnEmptyPrefix) {
  EXPECT_EQ(with_mode("\n  <resolutions> </resolutions>", 1, 2, 3),
            "\n  <resolutions>     <resolution>\n        <width>1</width>\n        "
            "<height>2</height>\n        <refresh_rate>3</refresh_rate>\n    "
            "</resolution>\n</resolutions>");
}

TEST(VddXmlAddMode, ATextMayBeginWithTheClosingTag) {
  EXPECT_EQ(with_mode("  </resolutions>", 1, 2, 3).substr(0, 19), "      <resolution>\n");
}

TEST(VddXmlAddMode, WithoutAClosingTagNothingHappens) {
  EXPECT_EQ(with_mode("<resolutions>", 1, 2, 3), "<resolutions>");
  EXPECT_EQ(with_mode("", 1, 2, 3), "");
}

// ---- The nearest mode

constexpr int MOST = std::numeric_limits<std::int32_t>::max();
constexpr int LEAST = std::numeric_limits<std::int32_t>::min();

TEST(PickBestMode, OfNoModesIsNone) {
  EXPECT_EQ(pick_best_mode({}, 1920, 1080, 60), -1);
}

TEST(PickBestMode, AHigherRateIsBetterThanOneJustBelow) {
  EXPECT_EQ(pick_best_mode({{1920, 1080, 59}, {1920, 1080, 75}}, 1920, 1080, 60), 1);
}

TEST(PickBestMode, OfHigherRatesTheLowestAndOfLowerOnesTheHighest) {
  EXPECT_EQ(pick_best_mode({{640, 480, 144}, {640, 480, 75}, {640, 480, 120}}, 640, 480, 60), 1);
  EXPECT_EQ(pick_best_mode({{640, 480, 24}, {640, 480, 50}, {640, 480, 30}}, 640, 480, 60), 1);
  EXPECT_EQ(pick_best_mode({{640, 480, 24}, {640, 480, 1065}}, 640, 480, 60), 1);  // 1144, 1005
  EXPECT_EQ(pick_best_mode({{640, 480, 59}, {640, 480, 1065}}, 640, 480, 60), 0);  // 1004, 1005
}

TEST(PickBestMode, OfEqualModesTheEarliest) {
  EXPECT_EQ(pick_best_mode({{800, 600, 60}, {640, 480, 60}, {640, 480, 60}}, 640, 480, 60), 1);
  EXPECT_EQ(pick_best_mode({{640, 480, 60}, {640, 480, 60}}, 1280, 960, 60), 0);
  EXPECT_EQ(pick_best_mode({{600, 800, 60}, {800, 600, 60}}, 10, 10, 60), 0);
}

TEST(PickBestMode, TheSizeIsBetterThanAnyRate) {
  EXPECT_EQ(pick_best_mode({{1919, 1080, 60}, {1920, 1080, 1}}, 1920, 1080, 60), 1);
}

TEST(PickBestMode, OfTwoOfTheShapeTheLarger) {
  EXPECT_EQ(pick_best_mode({{1280, 720, 60}, {1360, 768, 60}}, 1366, 768, 60), 1);
}

TEST(PickBestMode, TheShapeOutweighsAnySize) {
  EXPECT_EQ(pick_best_mode({{1920, 1000, 60}, {160, 90, 60}}, 1920, 1080, 60), 1);
}

TEST(PickBestMode, WithinTheShapeTheSizeOutweighsTheRate) {
  EXPECT_EQ(pick_best_mode({{1280, 720, 60}, {1600, 900, 30}}, 1920, 1080, 60), 1);
}

TEST(PickBestMode, OfOneSizeWithinTheRateDecides) {
  EXPECT_EQ(pick_best_mode({{1280, 720, 30}, {1280, 720, 60}, {1280, 720, 75}}, 1920, 1080, 60), 1);
}

TEST(PickBestMode, WhereAllAreLargerTheSmallest) {
  EXPECT_EQ(pick_best_mode({{1024, 768, 60}, {1920, 1080, 60}}, 800, 600, 60), 0);
  EXPECT_EQ(pick_best_mode({{1920, 1080, 60}, {1024, 768, 60}}, 800, 600, 60), 1);
}

TEST(PickBestMode, AModeTooWideOrTooHighIsNotWithin) {
  EXPECT_EQ(pick_best_mode({{2000, 100, 60}, {100, 2000, 60}, {300, 200, 60}}, 1920, 1080, 60), 2);
}

TEST(PickBestMode, AWishWithoutAHeightIsSquare) {
  EXPECT_EQ(pick_best_mode({{1024, 768, 60}, {1920, 1080, 60}}, 1920, 0, 60), 0);
}

TEST(PickBestMode, ExtremesAreNoOverflow) {
  EXPECT_EQ(pick_best_mode({{MOST, MOST, LEAST}, {MOST, MOST - 1, MOST}}, 1, 1, MOST), 1);
  EXPECT_EQ(pick_best_mode({{MOST, MOST, LEAST}}, MOST, MOST, MOST), 0);
  EXPECT_EQ(pick_best_mode({{LEAST, 1, LEAST}}, MOST, MOST, MOST), 0);
  EXPECT_EQ(pick_best_mode({{LEAST, LEAST, 0}}, LEAST, LEAST, LEAST), 0);
  EXPECT_EQ(pick_best_mode({{0, 1, 0}}, 0, 5, 0), 0);
}

}  // namespace
