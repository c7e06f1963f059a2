// docs/security.md names tests, files, fuzz targets and constants as its proof: each must be there.
// The links of every page lead somewhere.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <regex>
#include <set>

#include "tests/connection/documents/page.h"
#include "tests/connection/documents/source_constants.h"

namespace {

namespace fs = std::filesystem;

constexpr char PATH[] = "docs/security.md";

fs::path tree() {
  return LUND_SOURCE_DIR;
}

std::vector<std::string> spans_matching(const std::string& pattern) {
  std::vector<std::string> found;
  for (const std::string& span : Page(PATH).code_spans())
    if (std::regex_match(span, std::regex(pattern))) found.push_back(span);
  return found;
}

// "Suite.Name" of every test in the tree.
std::set<std::string> tests_of_the_tree() {
  std::set<std::string> tests;
  const std::regex definition("\\bTEST(?:_F|_P)?\\(\\s*(\\w+),\\s*(\\w+)\\)");
  for (const auto& entry : fs::recursive_directory_iterator(tree() / "tests")) {
    if (entry.path().extension() != ".cpp") continue;
    const std::string text = tree_file(fs::relative(entry.path(), tree()).generic_string());
    for (std::sregex_iterator at(text.begin(), text.end(), definition), end; at != end; ++at)
      tests.insert((*at)[1].str() + "." + (*at)[2].str());
  }
  return tests;
}

std::set<std::string> fuzz_targets_of_the_tree() {
  std::set<std::string> targets;
  for (const auto& entry : fs::directory_iterator(tree() / "fuzz"))
    if (entry.path().filename().string().ends_with("_fuzz.cpp"))
      targets.insert(entry.path().stem().string());
  return targets;
}

// A heading as links name it: lower case, blanks as hyphens, no other marks.
std::string anchor_of(const std::string& heading) {
  std::string anchor;
  for (const char c : heading) {
    if (std::isalnum(static_cast<unsigned char>(c)) || c == '-')
      anchor += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    if (c == ' ') anchor += '-';
  }
  return anchor;
}

bool has_heading(const std::string& file, const std::string& anchor) {
  const std::string text = "\n" + tree_file(file);
  const std::regex heading("\n#+ ([^\n]+)");
  for (std::sregex_iterator at(text.begin(), text.end(), heading), end; at != end; ++at)
    if (anchor_of((*at)[1]) == anchor) return true;
  return false;
}

}  // namespace

TEST(SecurityDocument, EveryTestItNamesExists) {
  const std::vector<std::string> named = spans_matching("[A-Za-z_]+\\.[A-Z0-9]\\w+");
  const std::set<std::string> existing = tests_of_the_tree();
  EXPECT_GT(named.size(), 50u);
  for (const std::string& test : named) EXPECT_TRUE(existing.contains(test)) << test;
}

TEST(SecurityDocument, EveryFileItNamesExists) {
  const std::vector<std::string> named = spans_matching("\\w+/[\\w./]+\\.(cpp|h|md|txt)");
  EXPECT_GT(named.size(), 30u);
  for (const std::string& file : named) EXPECT_TRUE(fs::is_regular_file(tree() / file)) << file;
}

TEST(SecurityDocument, ItNamesEveryFuzzTargetAndNoOther) {
  const std::vector<std::string> spans = spans_matching("\\w+_fuzz");
  EXPECT_EQ(std::set<std::string>(spans.begin(), spans.end()), fuzz_targets_of_the_tree());
}

TEST(SecurityDocument, ItNamesEveryTestOfForgeryHostilityAndFlood) {
  const std::vector<std::string> spans = spans_matching("tests/[\\w./]+");
  for (const auto& entry : fs::recursive_directory_iterator(tree() / "tests")) {
    const std::string file = fs::relative(entry.path(), tree()).generic_string();
    if (std::regex_search(file, std::regex("_(hostile|forgery|flood)_test\\.cpp$"))) {
      EXPECT_NE(std::ranges::find(spans, file), spans.end()) << PATH << " doesn't name " << file;
    }
  }
}

TEST(SecurityDocument, LimitsAreTheConstantsThatTheyName) {
  const Page page(PATH);
  std::size_t checked = 0;
  for (const char* heading : {"Being kept busy", "The rendezvous server"}) {
    for (const Page::Row& row : page.table(heading)) {
      ASSERT_EQ(row.size(), 4u) << row.at(0);
      const std::string constant = plain(row.at(2)), file = plain(row.at(3));
      EXPECT_EQ(quantity(row.at(1), constant), source_constant(file, constant))
          << row.at(0) << ": " << constant << " of " << file;
      ++checked;
    }
  }
  EXPECT_GT(checked, 30u);
}

TEST(Documents, EveryLinkLeadsToAFileAndAHeading) {
  const std::regex link("\\]\\(([^)#:]*)(?:#([^)]*))?\\)");
  std::size_t followed = 0;
  std::vector<std::string> pages = {"README.md"};
  for (const auto& entry : fs::directory_iterator(tree() / "docs"))
    if (entry.path().extension() == ".md")
      pages.push_back("docs/" + entry.path().filename().string());
  for (const std::string& page : pages) {
    const std::string text = tree_file(page);
    for (std::sregex_iterator at(text.begin(), text.end(), link), end; at != end;
         ++at, ++followed) {
      const std::string target = (*at)[1];
      const fs::path file = target.empty() ? fs::path(page) : fs::path(page).parent_path() / target;
      EXPECT_TRUE(fs::exists(tree() / file)) << page << " links to " << target;
      if ((*at)[2].matched) {
        EXPECT_TRUE(has_heading(file.generic_string(), (*at)[2]))
            << page << " links to " << (*at)[0];
      }
    }
  }
  EXPECT_GT(followed, 10u);
}
