// The file that says which outputs are muted, on the disk.
#include "streams/mute_state.h"

#include <gtest/gtest.h>

#include "tests/support/temp_directory.h"

namespace {

class MuteState : public testing::Test {
 protected:
  const TempDirectory directory_;
  const std::filesystem::path path_ = directory_ / "muted-endpoints.txt";
};

TEST_F(MuteState, IsWrittenByteForByteAndReplacedWhole) {
  EXPECT_TRUE(write_mute_state(path_, "{0.0.0}.{a}\nl\xC3\xA4rm\n"));
  EXPECT_EQ(file_content(path_), "{0.0.0}.{a}\nl\xC3\xA4rm\n");
  EXPECT_TRUE(write_mute_state(path_, "b\n"));
  EXPECT_EQ(file_content(path_), "b\n");
  EXPECT_EQ(entry_count(directory_.path()), 1u);
}

TEST_F(MuteState, OneThatWasLeftHalfWrittenIsNotInTheWay) {
  write_file(directory_ / "muted-endpoints.txt.new", "half of a much longer one");
  EXPECT_TRUE(write_mute_state(path_, "a\n"));
  EXPECT_EQ(file_content(path_), "a\n");
  EXPECT_EQ(entry_count(directory_.path()), 1u);
}

TEST_F(MuteState, OneThatCannotBeReplacedStaysAndLeavesNothingBeside) {
  std::filesystem::create_directories(path_);
  EXPECT_FALSE(write_mute_state(path_, "new\n"));
  EXPECT_TRUE(std::filesystem::is_directory(path_));
  EXPECT_EQ(entry_count(directory_.path()), 1u);
}

TEST_F(MuteState, WithoutItsDirectoryItIsNotWritten) {
  EXPECT_FALSE(write_mute_state(directory_ / "none" / "muted-endpoints.txt", "a\n"));
  EXPECT_EQ(entry_count(directory_.path()), 0u);
}

}  // namespace
