#include "control/log.h"

#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "control/log_format.h"
#include "tests/support/temp_directory.h"

namespace {

constexpr std::size_t TIME_SIZE = 26;   // "[2024-01-31 12:00:00.000] "
constexpr std::size_t CLOCK_SIZE = 15;  // "[12:00:00.000] "

std::string digits_hidden(std::string text) {
  for (char& character : text) {
    if (character >= '0' && character <= '9') character = 'd';
  }
  return text;
}

// The message of a line in the file, behind a well-formed time.
std::string message_of(const std::string& line) {
  if (digits_hidden(line.substr(0, TIME_SIZE)) != "[dddd-dd-dd dd:dd:dd.ddd] ") {
    return "no time: " + line.substr(0, 80);
  }
  return line.substr(TIME_SIZE);
}

// The same of a line on the console.
std::string console_message_of(const std::string& line) {
  if (digits_hidden(line.substr(0, CLOCK_SIZE)) != "[dd:dd:dd.ddd] ") return "no time: " + line;
  return line.substr(CLOCK_SIZE);
}

std::vector<std::string> lines_in(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream content(text);
  for (std::string line; std::getline(content, line);) lines.push_back(line);
  return lines;
}

std::vector<std::string> lines_of(const std::filesystem::path& path) {
  return lines_in(file_content(path));
}

class LogFile : public testing::Test {
 protected:
  void TearDown() override { log_close(); }
  std::filesystem::path file() const { return directory_ / "host.log"; }
  std::filesystem::path old_file() const { return directory_ / "host.log.1"; }

  // The log as it stands after a long run: `left` bytes below the limit.
  void open_almost_full(std::int64_t left) {
    log_open(false, directory_.path());
    log_close();
    write_file(file(), std::string(static_cast<std::size_t>(LOG_ROTATE_BYTES - left), 'x'));
    log_open(false, directory_.path());
  }

  std::int64_t banner_bytes() {
    log_open(false, directory_.path());
    log_close();
    const auto bytes = static_cast<std::int64_t>(file_content(file()).size());
    std::filesystem::remove(file());
    return bytes;
  }

  TempDirectory directory_;
};

TEST_F(LogFile, OpensWithABanner) {
  log_open(false, directory_.path());
  const std::vector<std::string> lines = lines_of(file());
  ASSERT_EQ(lines.size(), 1u);
  const std::string banner = message_of(lines[0]);
  EXPECT_TRUE(banner.starts_with("---- Lunderhaze (")) << banner;
  EXPECT_NE(banner.find(") started (pid "), std::string::npos) << banner;
  EXPECT_TRUE(banner.ends_with(", tray) ----\r")) << banner;
}

TEST_F(LogFile, EachOpeningAppendsItsBanner) {
  log_open(false, directory_.path());
  hlog("first run");
  testing::internal::CaptureStdout();
  log_open(true, directory_.path());
  testing::internal::GetCapturedStdout();
  const std::vector<std::string> lines = lines_of(file());
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_NE(lines[2].find(", console) ----"), std::string::npos) << lines[2];
}

TEST_F(LogFile, ALineHasDateTimeMessageAndBothLineEndCharacters) {
  log_open(false, directory_.path());
  hlog("conn: %s is %d", "answer", 42);
  hsay("said");
  const std::vector<std::string> lines = lines_of(file());
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(message_of(lines[1]), "conn: answer is 42\r");
  EXPECT_EQ(message_of(lines[2]), "said\r");
}

TEST_F(LogFile, OnTheConsoleALogLineHasTheTimeAndASaidOneIsBare) {
  testing::internal::CaptureStdout();
  log_open(true, directory_.path());
  hlog("logged");
  hsay("said");
  const std::string console = testing::internal::GetCapturedStdout();
  const std::vector<std::string> lines = lines_in(console);
  ASSERT_EQ(lines.size(), 3u) << console;
  EXPECT_TRUE(console_message_of(lines[0]).ends_with(", console) ----")) << lines[0];
  EXPECT_EQ(console_message_of(lines[1]), "logged");
  EXPECT_EQ(lines[2], "said");
}

TEST_F(LogFile, WithoutAConsoleNothingIsPrinted) {
  testing::internal::CaptureStdout();
  log_open(false, directory_.path());
  hlog("logged");
  hsay("said");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST_F(LogFile, AMessageOf3000CharactersIsCutTo2047AndKeepsItsTimeStamp) {
  log_open(false, directory_.path());
  hlog("%s", std::string(3000, 'm').c_str());
  const std::string line = lines_of(file()).at(1);
  EXPECT_EQ(message_of(line), std::string(2047, 'm') + "\r");
}

TEST(LogLine, OneThatWouldPass2400BytesLosesItsTailWithTheLineEnd) {
  char line[LOG_LINE_BYTES];
  const log_platform::LocalTime time{2024, 2, 29, 23, 59, 58, 7};
  EXPECT_EQ(log_format_line(line, time, std::string(2371, 'a').c_str()), 2399u);
  EXPECT_STREQ(line + 2395, "aa\r\n");
  EXPECT_EQ(log_format_line(line, time, std::string(2380, 'a').c_str()), 2399u);
  EXPECT_EQ(std::string(line), "[2024-02-29 23:59:58.007] " + std::string(2373, 'a'));
}

TEST_F(LogFile, TheLineThatPassesTheLimitIsTheLastInTheOldFileAndTheNextOpensANewOneWithoutBanner) {
  open_almost_full(banner_bytes() + 10);
  hlog("the last");
  EXPECT_EQ(message_of(lines_of(old_file()).back()), "the last\r");
  EXPECT_EQ(file_content(file()), "");
  hlog("the next");
  const std::vector<std::string> lines = lines_of(file());
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(message_of(lines[0]), "the next\r");
}

TEST_F(LogFile, AFileOfExactlyTheLimitIsNotYetSetAside) {
  const std::int64_t line_bytes = 26 + 5 + 2;
  open_almost_full(banner_bytes() + line_bytes);
  hlog("fills");
  EXPECT_FALSE(std::filesystem::exists(old_file()));
  EXPECT_EQ(std::filesystem::file_size(file()), static_cast<std::uintmax_t>(LOG_ROTATE_BYTES));
  hlog("more");
  EXPECT_TRUE(std::filesystem::exists(old_file()));
}

TEST_F(LogFile, OneGenerationIsKept) {
  write_file(old_file(), "older still");
  open_almost_full(0);
  EXPECT_GT(std::filesystem::file_size(old_file()), static_cast<std::uintmax_t>(LOG_ROTATE_BYTES));
  EXPECT_EQ(entry_count(directory_.path()), 2u);
}

TEST_F(LogFile, WhereTheOldNameIsTakenByADirectoryTheSameFileGoesOn) {
  std::filesystem::create_directories(old_file() / "in the way");
  open_almost_full(0);
  hlog("still here");
  EXPECT_EQ(message_of(lines_of(file()).back()), "still here\r");
}

TEST_F(LogFile, AfterCloseNothingReachesAnyFile) {
  log_open(false, directory_.path());
  log_close();
  const std::string before = file_content(file());
  hlog("too late");
  hsay("too late");
  EXPECT_EQ(file_content(file()), before);
  EXPECT_EQ(entry_count(directory_.path()), 1u);
}

TEST_F(LogFile, AfterCloseTheConsoleIsStillServed) {
  testing::internal::CaptureStdout();
  log_open(true, directory_.path());
  log_close();
  hsay("goodbye");
  EXPECT_TRUE(testing::internal::GetCapturedStdout().ends_with("\ngoodbye\n"));
}

TEST_F(LogFile, AnotherOpeningReplacesTheFile) {
  TempDirectory other;
  log_open(false, directory_.path());
  log_open(false, other.path());
  EXPECT_EQ(log_file_path(), other / "host.log");
  const std::string before = file_content(file());
  hlog("elsewhere");
  EXPECT_EQ(file_content(file()), before);
  EXPECT_EQ(lines_of(other / "host.log").size(), 2u);
}

TEST_F(LogFile, ADirectoryThatIsNotThereCostsTheFileOnly) {
  log_open(false, directory_ / "missing");
  hlog("into nothing");
  EXPECT_EQ(log_file_path(), directory_.path() / "missing" / "host.log");
  EXPECT_EQ(entry_count(directory_.path()), 0u);
}

TEST_F(LogFile, LinesOfManyThreadsStayWholeAndNoneIsLostWhileTheFileIsSetAside) {
  constexpr int THREADS = 4;
  constexpr int LINES = 500;
  open_almost_full(THREADS * LINES * 40 / 2);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < THREADS; ++thread) {
    threads.emplace_back([thread] {
      for (int line = 0; line < LINES; ++line) hlog("thread %d line %d end", thread, line);
    });
  }
  for (std::thread& thread : threads) thread.join();
  ASSERT_TRUE(std::filesystem::exists(old_file()));
  std::set<std::string> seen;
  for (const auto& path : {old_file(), file()}) {
    for (const std::string& line : lines_of(path)) {
      if (line.find("thread") == std::string::npos) continue;
      const std::string message = message_of(line);
      ASSERT_TRUE(message.starts_with("thread ") && message.ends_with(" end\r")) << line;
      ASSERT_TRUE(seen.insert(message).second) << line;
    }
  }
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(THREADS * LINES));
}

}  // namespace
