// What `make windows` packs for a PC, out/windows: that it is whole, that scripts/check-windows
// would say so if it weren't, and that it runs from wherever it is put.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/temp_directory.h"
#include "tests/system/windows/wine_support.h"

namespace {

namespace fs = std::filesystem;

const fs::path SOURCE = LUND_SOURCE_DIR;

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

RunResult check(const fs::path& folder) {
  return run_program({(SOURCE / "scripts/check-windows").string(), folder.string()});
}

// A copy of a program to be broken.
class PackedForWindowsTest : public testing::Test {
 protected:
  PackedForWindowsTest() : folder_(directory_ / "windows") {}
  void SetUp() override {
    ASSERT_TRUE(fs::exists(SOURCE / "out/windows")) << "make windows makes it";
    fs::create_directory(folder_);
    put("lunderhaze-service.exe");
  }
  void put(const std::string& name) {
    fs::copy_file(SOURCE / "out/windows" / name, folder_ / name,
                  fs::copy_options::overwrite_existing);
  }

  // What the check says of the copy once something is done to a program's bytes, or to the folder.
  template <typename Change>
  std::string complaint(const Change& change) {
    const fs::path program = folder_ / "lunderhaze-service.exe";
    const std::string before = file_content(program);
    std::string bytes = before;
    change(bytes);
    write_file(program, bytes);
    const RunResult result = check(folder_);
    write_file(program, before);
    return result.status == 0 ? "nothing" : result.output;
  }

  TempDirectory directory_;
  const fs::path folder_;
};

void replace_all(std::string& bytes, const std::string& from, const std::string& to) {
  ASSERT_EQ(from.size(), to.size());
  ASSERT_TRUE(holds(bytes, from)) << from;
  for (std::size_t at = 0; (at = bytes.find(from, at)) != std::string::npos; at += to.size())
    bytes.replace(at, from.size(), to);
}

std::string utf16(const std::string& ascii) {
  std::string wide;
  for (const char c : ascii) wide += {c, '\0'};
  return wide;
}

// DllCharacteristics lies 70 bytes into the optional header, behind "PE\0\0" and 20 bytes of COFF
// header; the image's own characteristics are the last two of those.
std::size_t signature(const std::string& bytes) {
  return static_cast<std::uint8_t>(bytes[0x3c]) + 256u * static_cast<std::uint8_t>(bytes[0x3d]);
}
void clear_flag(std::string& bytes, unsigned flag) {
  for (std::size_t i = 0; i < 2; ++i) {
    char& byte = bytes[signature(bytes) + 24 + 70 + i];
    byte = static_cast<char>(byte & ~(flag >> (8 * i)));
  }
}

TEST_F(PackedForWindowsTest, IsWhole) {
  const RunResult result = check(SOURCE / "out/windows");
  EXPECT_EQ(result.status, 0) << result.output;
  // The list of what is imported, of which each program needs the first, and the worker the second.
  EXPECT_TRUE(holds(result.output, "kernel32.dll")) << result.output;
  EXPECT_TRUE(holds(result.output, "avcodec-61.dll")) << result.output;
}

TEST_F(PackedForWindowsTest, IsVerifiedByACheckThatSeesMistakes) {
  EXPECT_EQ(complaint([](std::string&) {}), "nothing");
  EXPECT_TRUE(holds(complaint([](std::string& b) { clear_flag(b, 0x40); }), "DYNAMIC_BASE"));
  EXPECT_TRUE(holds(complaint([](std::string& b) { clear_flag(b, 0x20); }), "HIGH_ENTROPY_VA"));
  EXPECT_TRUE(holds(complaint([](std::string& b) { clear_flag(b, 0x100); }), "NX_COMPAT"));
  EXPECT_TRUE(holds(complaint([](std::string& b) { b[signature(b) + 22] |= 1; }),
                    "has its relocations stripped"));
  EXPECT_TRUE(holds(complaint([](std::string& b) { replace_all(b, "USERENV.dll", "FOREIGN.dll"); }),
                    "needs FOREIGN.dll, which isn't the system's"));
  EXPECT_TRUE(
      holds(complaint([](std::string& b) { replace_all(b, "PerMonitorV2", "PerMonitorV1"); }),
            "lack: >PerMonitorV2<"));
  EXPECT_TRUE(holds(
      complaint([](std::string& b) { replace_all(b, utf16("ProductName"), utf16("ProductNome")); }),
      "VALUE \"ProductName\""));
}

TEST_F(PackedForWindowsTest, IsVerifiedByACheckThatMissesWhatIsMissing) {
  const std::string tool = "x86_64-w64-mingw32-objcopy";
  const std::string program = (folder_ / "lunderhaze-service.exe").string();
  ASSERT_EQ(run_program({tool, "--remove-section=.rsrc", program}).status, 0);
  EXPECT_TRUE(holds(check(folder_).output, "lunderhaze-service.exe: has no resources"));
  put("lunderhaze-service.exe");
  ASSERT_EQ(run_program({tool, "--remove-section=.reloc", program}).status, 0);
  EXPECT_TRUE(holds(check(folder_).output, "lunderhaze-service.exe: has no relocations"));
  put("lunderhaze-service.exe");
  put("swscale-8.dll");
  const RunResult lonely = check(folder_);
  EXPECT_NE(lonely.status, 0);
  EXPECT_TRUE(holds(lonely.output, "swscale-8.dll: needs avutil-59.dll, which isn't beside it"));
  put("avutil-59.dll");
  EXPECT_EQ(check(folder_).status, 0);
  EXPECT_TRUE(holds(check(directory_.path()).output, "no program in "));
}

// Built by another revision's tree, it says so.
TEST_F(PackedForWindowsTest, IsVerifiedByACheckThatKnowsTheVersion) {
  const std::string line = "project(Lunderhaze VERSION ";
  const std::string project = file_content(SOURCE / "CMakeLists.txt");
  const std::size_t at = project.find(line) + line.size();
  const std::string version = project.substr(at, project.find(' ', at) - at);
  std::string other = version;
  other.back() = other.back() == '9' ? '8' : '9';
  EXPECT_TRUE(
      holds(complaint([&](std::string& b) { replace_all(b, utf16(version), utf16(other)); }),
            "VALUE \"ProductVersion\", \"" + version + "\""));
}

// Everything that is in it is spoken of in the notices.
TEST_F(PackedForWindowsTest, SaysOfEachProgramAndLibraryWhatItIs) {
  const fs::path packed = SOURCE / "out/windows";
  const std::string readme = file_content(packed / "README.txt");
  const std::string notices = file_content(packed / "notices/NOTICES.txt");
  int programs = 0, libraries = 0;
  for (const auto& entry : fs::directory_iterator(packed)) {
    const std::string name = entry.path().filename().string();
    if (entry.path().extension() == ".exe") {
      ++programs;
      EXPECT_TRUE(holds(readme, "\n" + name + " ")) << name;
    } else if (entry.path().extension() == ".dll") {
      ++libraries;
      EXPECT_TRUE(holds(notices, name.substr(0, name.find('-')))) << name;
    }
  }
  EXPECT_GE(programs, 5);
  EXPECT_GE(libraries, 3);
  const std::string page = file_content(packed / "docs/windows.md");
  EXPECT_TRUE(holds(readme, "docs\\windows.md"));
  for (const char* linked : {"service.md", "ctl.md"}) {
    EXPECT_TRUE(holds(page, linked)) << linked;
    EXPECT_TRUE(fs::exists(packed / "docs" / linked)) << linked;
  }
  for (const std::string& text : {readme, notices, page})
    EXPECT_EQ(std::ranges::count(text, '\n'), std::ranges::count(text, '\r'));
}

// On a PC, in a folder with a name beyond ASCII.
class UnpackedOnAPcTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!WineDesk::missing().empty()) GTEST_SKIP() << WineDesk::missing();
    desk_.emplace();
    ASSERT_TRUE(desk_->running());
    fs::copy(SOURCE / "out/windows", place(), fs::copy_options::recursive);
  }
  fs::path place() const { return desk_->drive_c() / "Lunderhaze für Zuhause"; }
  // Wine takes the names of files, and what a program is called with, as this computer's locale has
  // them.
  RunResult run(const std::string& program, const std::vector<std::string>& arguments) const {
    return desk_->run((place() / program).string(), arguments, std::chrono::seconds(60),
                      {{"LC_ALL", "C.UTF-8"}});
  }

  std::optional<WineDesk> desk_;
};

TEST_F(UnpackedOnAPcTest, EachProgramRunsAndSaysWhatItIs) {
  const std::string readme = file_content(place() / "README.txt");
  const std::size_t at = readme.find("(revision ") + 10;
  const std::string revision = readme.substr(at, readme.find(')', at) - at);
  int programs = 0;
  for (const auto& entry : fs::directory_iterator(place())) {
    if (entry.path().extension() != ".exe") continue;
    ++programs;
    const std::string program = entry.path().filename().string();
    const RunResult version = run(program, {"--version"});
    EXPECT_EQ(version.status, 0) << program << version.output;
    EXPECT_TRUE(version.output.starts_with("Lunderhaze ")) << program << version.output;
    EXPECT_TRUE(holds(version.output, " (" + revision + ")")) << program << version.output;
    if (entry.path().stem() == "lunderhaze-worker") continue;  // its service's alone
    const RunResult help = run(program, {"--help"});
    EXPECT_EQ(help.status, 0) << program << help.output;
    EXPECT_TRUE(holds(help.output, "--version")) << program << help.output;
    EXPECT_TRUE(holds(help.output, entry.path().stem().string())) << program << help.output;
  }
  EXPECT_GE(programs, 5);
}

TEST_F(UnpackedOnAPcTest, PathsBeyondAsciiAreReadMadeAndShownAsTheyAre) {
  const std::string office = "B\u00fcro \u20ac", japan = "\u65e5\u672c";
  const RunResult refused =
      run("lunderhaze-rendezvous.exe", {"--key-file", "C:\\" + office + "\\" + japan});
  EXPECT_EQ(refused.status, 1);
  EXPECT_TRUE(holds(refused.output, "cannot read a key from C:\\" + office + "\\" + japan))
      << refused.output;

  const std::string store = "C:\\" + office + "\\" + japan;
  const RunResult added =
      run("lunderhaze-client.exe",
          {"--store", store, "relay", "add", "lunderhaze-relay://relay.example.org#key"});
  EXPECT_EQ(added.status, 0) << added.output;
  EXPECT_TRUE(fs::exists(desk_->drive_c() / office / japan / "relays"));
  const RunResult listed = run("lunderhaze-client.exe", {"--store", store, "relay", "list"});
  EXPECT_EQ(listed.status, 0) << listed.output;
  EXPECT_TRUE(holds(listed.output, "relay.example.org")) << listed.output;
}

}  // namespace
