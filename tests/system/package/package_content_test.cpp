// What is in the package, as far as it can be told without installing it.
#include <regex>
#include <set>

#include "tests/system/package/package_support.h"

namespace {

namespace fs = std::filesystem;
using testing::Test;

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::set<std::string> names(const std::vector<std::string>& files, const std::string& cut = {}) {
  std::set<std::string> found;
  for (const std::string& file : files)
    found.insert(std::regex_replace(fs::path(file).filename().string(), std::regex(cut), ""));
  return found;
}

TEST(PackageContentTest, EachProgramHasAManPageAndNoToolForMeasuringIsThere) {
  const UnpackedPackage package;
  const std::set<std::string> programs = names(package.programs());
  EXPECT_EQ(programs.count("lunderhaze"), 1u);
  EXPECT_EQ(programs.count("lunderhaze-client"), 1u);
  EXPECT_EQ(programs.count("lunderhaze-rendezvous"), 1u);
  EXPECT_EQ(programs.count("lunderhaze-testscreen"), 0u);
  EXPECT_EQ(names(package.files("/usr/share/man"), "\\.[1-8]\\.gz$"), programs);
}

TEST(PackageContentTest, BelongsToRootWhoAloneMayWrite) {
  const RunResult listing = run_program({"dpkg-deb", "-c", package_file().string()});
  ASSERT_EQ(listing.status, 0) << listing.output;
  const std::vector<std::string> lines = lines_of(listing.output);
  EXPECT_GT(lines.size(), 20u);
  for (const std::string& line : lines)
    EXPECT_TRUE(std::regex_search(
        line,
        std::regex("^(drwxr-xr-x|-rw-r--r--) root/root |^-rwxr-xr-x root/root .* \\./usr/s?bin/")))
        << line;
}

TEST(PackageContentTest, AllThatAnAdministratorMayEditIsAConffile) {
  const UnpackedPackage package;
  const RunResult conffiles = run_program({"dpkg-deb", "-I", package_file().string(), "conffiles"});
  ASSERT_EQ(conffiles.status, 0) << conffiles.output;
  std::vector<std::string> expected = package.files("/etc"), said = lines_of(conffiles.output);
  EXPECT_FALSE(expected.empty());
  std::sort(expected.begin(), expected.end());
  std::sort(said.begin(), said.end());
  EXPECT_EQ(said, expected);
}

// A unit reads the options that an administrator writes from a file that the package has.
TEST(PackageContentTest, UnitsReadOptionsFromFilesThatAreThere) {
  const UnpackedPackage package;
  const std::vector<std::string> units = package.files("/usr/lib/systemd/system");
  EXPECT_FALSE(units.empty());
  for (const std::string& unit : units) {
    const std::string text = package.read(unit);
    const std::regex option_file("EnvironmentFile=-?(.*)");
    for (std::sregex_iterator at(text.begin(), text.end(), option_file), end; at != end; ++at)
      EXPECT_TRUE(fs::exists(package.root() / (*at)[1].str().substr(1)))
          << unit << ": " << (*at)[1];
  }
}

// Debian's hardening=+all, as it shows in the file: position-independent, relocations read-only and
// resolved before the start, a stack that isn't executable, checked stacks and buffers.
TEST(PackageContentTest, ProgramsAreHardenedAndStripped) {
  const UnpackedPackage package;
  for (const std::string& program : package.programs()) {
    SCOPED_TRACE(program);
    const RunResult result =
        run_program({"readelf", "--wide", "--file-header", "--program-headers", "--dynamic",
                     "--dyn-syms", "--sections", (package.root() / program.substr(1)).string()});
    ASSERT_EQ(result.status, 0) << result.output;
    const std::string& elf = result.output;
    EXPECT_TRUE(std::regex_search(elf, std::regex("Type: +DYN ")));
    EXPECT_TRUE(std::regex_search(elf, std::regex("\\(FLAGS_1\\) +Flags:.* PIE")));
    EXPECT_TRUE(std::regex_search(elf, std::regex("\\(FLAGS_1\\) +Flags:.*NOW")));
    EXPECT_TRUE(holds(elf, "GNU_RELRO"));
    EXPECT_TRUE(std::regex_search(elf, std::regex("GNU_STACK .* RW  ")));
    EXPECT_FALSE(std::regex_search(elf, std::regex("LOAD .* RWE ")));
    EXPECT_TRUE(holds(elf, "__stack_chk_fail"));
    EXPECT_TRUE(std::regex_search(elf, std::regex("__[a-z]+_chk@")));
    EXPECT_FALSE(holds(elf, ".symtab"));
    EXPECT_FALSE(holds(elf, "(RUNPATH)"));
    EXPECT_FALSE(holds(elf, "(RPATH)"));
  }
}

// What is linked in has no package of its own to carry its notice.
TEST(PackageContentTest, NoticesCoverWhatIsLinkedIn) {
  const UnpackedPackage package;
  const std::string notices = package.read("/usr/share/doc/lunderhaze/copyright");
  int libraries = 0;
  for (const auto& entry : fs::directory_iterator(fs::path(LUND_PREFIX) / "lib")) {
    if (entry.path().extension() != ".a") continue;
    ++libraries;
    EXPECT_TRUE(std::regex_search(
        notices, std::regex("\nFiles: [^\n]*\\b" + entry.path().stem().string() + "\\b")))
        << entry.path();
  }
  EXPECT_GT(libraries, 0);
  // Each licence that a library is under stands there with its text.
  int licences = 0;
  const std::regex named("\nLicense: ([^\n ]+)(?: or ([^\n ]+))?\n(?! )");
  for (std::sregex_iterator at(notices.begin(), notices.end(), named), end; at != end; ++at)
    for (const std::size_t which : {1u, 2u}) {
      if (!(*at)[which].matched) continue;
      ++licences;
      EXPECT_TRUE(holds(notices, "\nLicense: " + (*at)[which].str() + "\n ")) << (*at)[which];
    }
  EXPECT_GT(licences, 3);
}

TEST(PackageContentTest, VersionTellsTheRevision) {
  const std::string version = package_field("Version");
  const RunResult head =
      run_program({"git", "-C", LUND_SOURCE_DIR, "rev-parse", "--is-inside-work-tree"});
  const std::regex form(head.status == 0
                            ? "\\d+\\.\\d+\\.\\d+\\+git\\d{14}\\.[0-9a-f]{10}(\\.changed)?-1\n"
                            : "\\d+\\.\\d+\\.\\d+-1\n");
  EXPECT_TRUE(std::regex_match(version, form)) << version;
}

}  // namespace
