#include "control/command_channel.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "control/windows/command_pipe.h"
#include "tests/support/command_channel_fixture.h"
#include "tests/support/windows/neighbour.h"

namespace {

class CommandPipe : public CommandChannel {
 protected:
  std::string content() const { return file_content(directory_ / "control.pipe"); }
};

TEST_F(CommandPipe, ItsNameIsARandomOneThatTheStoreHolds) {
  start();
  const std::string first = content();
  EXPECT_EQ(first.size(), 32u);
  EXPECT_EQ(first.find_first_not_of("0123456789abcdef"), first.npos);
  server_.reset();
  start();
  EXPECT_NE(content(), first);
}

TEST_F(CommandPipe, NobodyElseWritesTheNameWhileTheHostRuns) {
  start();
  const std::string name = content();
  write_file(directory_ / "control.pipe", "another");
  EXPECT_EQ(content(), name);
  expect_answers();
}

TEST_F(CommandPipe, WhatAHostLeavesBehindIsNobodyAndIsReplaced) {
  start();
  server_.reset();
  EXPECT_EQ(content().size(), 32u);
  std::string answer;
  EXPECT_EQ(ask("hello", &answer), CommandResult::NotRunning);
  for (const char* broken : {"", "short", "0123456789ABCDEF0123456789ABCDEF",
                             "..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\..\\"}) {
    write_file(directory_ / "control.pipe", broken);
    EXPECT_EQ(ask("hello", &answer), CommandResult::NotRunning) << broken;
  }
  start();
  expect_answers();
}

TEST_F(CommandPipe, APipeByThatNameThatIsAnothersIsToldNothing) {
  start();
  const std::string name = content();
  server_.reset();
  // A pipe that doesn't say whose it is.
  Neighbour neighbour;
  ASSERT_NE(neighbour.tell("serve \\\\.\\pipe\\LunderhazeHost-v1-" + name + " plain"), "no");
  std::string answer;
  EXPECT_EQ(ask("hello", &answer), CommandResult::Failed);
  EXPECT_EQ(error_, "the running host can't be reached (its pipe is another user's)");
  EXPECT_EQ(neighbour.tell("accept"), "no");
}

}  // namespace
