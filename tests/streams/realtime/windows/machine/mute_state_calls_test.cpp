// What is asked of Windows for the file that says which outputs are muted, where it lies in the
// machine's store: the store doesn't open beside a file that others than the system may read.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "control/windows/handles.h"
#include "streams/mute_state.h"
#include "tests/support/machine_store.h"
#include "tests/support/windows/machine/system_calls.h"

namespace {

class MachineMuteState : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(store_.configure(), ""); }

  MachineStore store_;
};

TEST_F(MachineMuteState, IsMadeForTheSystemAloneAndMovedIntoPlace) {
  const std::filesystem::path path = store_ / "muted-endpoints.txt";
  SystemCalls calls;
  EXPECT_TRUE(write_mute_state(path, "{0.0.0}.{a}\n"));
  EXPECT_THAT(calls.take(),
              testing::ElementsAre("DeleteFileW muted-endpoints.txt.new",
                                   "CreateFileW muted-endpoints.txt.new access 40000000 share 0 "
                                   "O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA) disposition 1 flags 200080",
                                   "WriteFile 0", "FlushFileBuffers ",
                                   "MoveFileExW muted-endpoints.txt.new to muted-endpoints.txt "
                                   "flags 9"));
  EXPECT_EQ(file_content(path), "{0.0.0}.{a}\n");
  EXPECT_EQ(store_.configure(), "");
}

TEST_F(MachineMuteState, IsNotWrittenWhereItCannotBeMadeForTheSystemAlone) {
  SystemCalls calls;
  calls.fail("CreateFileW", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(write_mute_state(store_ / "muted-endpoints.txt", "a\n"));
  calls.pass();
  EXPECT_FALSE(std::filesystem::exists(store_ / "muted-endpoints.txt"));
  EXPECT_FALSE(std::filesystem::exists(store_ / "muted-endpoints.txt.new"));
}

}  // namespace
