// The Windows that the other tests have: programs run in it, and end with it.
#include <gtest/gtest.h>

#include "tests/system/windows/wine_support.h"

namespace {

using std::chrono::seconds;

TEST(WineDeskTest, ProgramsSayAndReturnWhatTheyDo) {
  if (!WineDesk::missing().empty()) GTEST_SKIP() << WineDesk::missing();
  const WineDesk desk;
  ASSERT_TRUE(desk.running());
  const RunResult said = desk.run("cmd", {"/c", "echo said&& exit 7"});
  EXPECT_EQ(said.status, 7);
  EXPECT_EQ(said.output, "said\r\n");
  const RunResult version = desk.run("lunderhaze.exe", {"--version"});
  EXPECT_EQ(version.status, 0);
  EXPECT_TRUE(version.output.starts_with("Lunderhaze ")) << version.output;
}

}  // namespace
