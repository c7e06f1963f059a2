// The manual pages beside the programs that they describe.
#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

#include "tests/support/child_process.h"
#include "tests/support/temp_directory.h"

namespace system_test {
namespace {

namespace fs = std::filesystem;
using Words = std::set<std::string>;

const fs::path PAGES = fs::path(LUND_SOURCE_DIR) / "packaging" / "man";

struct Page {
  const char* file;
  // The options of a program that tells them nobody, since people don't start it.
  Words silent_options;

  std::string program() const { return fs::path(file).stem(); }
  std::string path() const { return std::string(LUND_BIN_DIR) + "/" + program(); }
};
std::ostream& operator<<(std::ostream& out, const Page& page) {
  return out << page.file;
}

Words matches(const std::string& text, const std::string& pattern) {
  Words found;
  const std::regex regex(pattern);
  for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match)
    found.insert((*match)[1]);
  return found;
}

Words options_in(const std::string& text) {
  return matches(text, "(--[a-z][a-z0-9-]*)");
}

// Sub-commands of a help text as it lists them, one a line behind their heading.
Words subcommands_in(const std::string& help) {
  const std::size_t heading = help.find("\nSubcommands:\n");
  if (heading == std::string::npos) return {};
  std::string list = help.substr(heading + 1);
  list.resize(std::min(list.size(), list.find("\n\n")));
  return matches(list, "\n  ([a-z-]+) ");
}

// What the program's help says, and that of all its sub-commands, at every depth.
struct Help {
  std::string text;
  Words commands;  // "relay add"
};
void add_help(const std::vector<std::string>& command, const std::string& name, Help* help) {
  std::vector<std::string> asking = command;
  asking.emplace_back("--help");
  const std::string text = run_program(asking).output;
  help->text += text;
  for (const std::string& subcommand : subcommands_in(text)) {
    asking.back() = subcommand;
    const std::string whole = name.empty() ? subcommand : name + " " + subcommand;
    help->commands.insert(whole);
    add_help(asking, whole, help);
  }
}
Help help_of(const Page& page) {
  Help help;
  add_help({page.path()}, "", &help);
  return help;
}

// As a reader sees it: escapes resolved, fonts left out.
std::string page_text(const Page& page) {
  std::string text = file_content(PAGES / page.file);
  text = std::regex_replace(text, std::regex(R"(\\f[A-Z])"), "");
  return std::regex_replace(text, std::regex(R"(\\-)"), "-");
}

class ManPageTest : public testing::TestWithParam<Page> {};

TEST_P(ManPageTest, HasEachOptionOfTheProgramAndNoOther) {
  const Page& page = GetParam();
  Words described = options_in(page_text(page));
  Words known = page.silent_options.empty() ? options_in(help_of(page).text) : page.silent_options;
  // Of all it may be shown without being told of.
  described.erase("--help");
  known.erase("--help");
  EXPECT_EQ(described, known);
}

TEST_P(ManPageTest, HasEachSubcommand) {
  const std::string text = page_text(GetParam());
  const Help help = help_of(GetParam());
  Words commands = help.commands;
  commands.merge(matches(help.text, "\n +" + GetParam().program() + " ([a-z]+)\\b"));
  for (const std::string& name : commands)
    EXPECT_TRUE(std::regex_search(text, std::regex("\n\\.B[RI]? [^\n]*\\b" + name + "\\b")))
        << name;
}

TEST_P(ManPageTest, GivesTheFormatterNothingToComplainOf) {
  const std::string file = (PAGES / GetParam().file).string();
  for (const std::vector<std::string>& formatter :
       {std::vector<std::string>{"groff", "-man", "-t", "-ww", "-Tutf8"},
        std::vector<std::string>{"mandoc", "-Tlint", "-Wwarning"}}) {
    if (run_program({"sh", "-c", "command -v " + formatter[0]}).status != 0) continue;
    std::string command;
    for (const std::string& word : formatter) command += word + " ";
    const RunResult result = run_program({"sh", "-c", command + file + " 2>&1 >/dev/null"});
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(result.output, "");
    return;
  }
  GTEST_SKIP() << "neither groff nor mandoc is installed";
}

TEST_P(ManPageTest, ItsProgramTellsItsVersionWithItsBuild) {
  const RunResult result = run_program({GetParam().path(), "--version"});
  EXPECT_EQ(result.status, 0);
  EXPECT_TRUE(std::regex_match(result.output, std::regex("Lunderhaze \\S+ \\(.+\\)\n")))
      << result.output;
}

INSTANTIATE_TEST_SUITE_P(
    Programs, ManPageTest,
    testing::Values(Page{"lunderhaze.1", {}}, Page{"lunderhaze-client.1", {}},
                    Page{"lunderhaze-ctl.8", {}}, Page{"lunderhaze-rendezvous.8", {}},
                    Page{"lunderhaze-service.8", {}}, Page{"lunderhaze-testscreen.1", {}},
                    Page{"lunderhaze-worker.8", {"--supervisor", "--channel", "--version"}}),
    [](const auto& page) {
      return std::regex_replace(page.param.program(), std::regex("-"), "_");
    });

TEST(ManPages, ThereIsOneForEachProgramAndEachIsTested) {
  Words files;
  for (const auto& entry : fs::directory_iterator(PAGES)) files.insert(entry.path().filename());
  EXPECT_EQ(files, (Words{"lunderhaze.1", "lunderhaze-client.1", "lunderhaze-ctl.8",
                          "lunderhaze-rendezvous.8", "lunderhaze-service.8",
                          "lunderhaze-testscreen.1", "lunderhaze-worker.8"}));
}

}  // namespace
}  // namespace system_test
