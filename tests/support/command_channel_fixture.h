// A command channel in a store of the test's own.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>

#include "control/command_channel.h"
#include "tests/support/temp_directory.h"

class CommandChannel : public testing::Test {
 protected:
  using Start = CommandServer::Start;

  static std::string echo(const std::string& request) { return "you said " + request; }

  void start(CommandServer::Handler handler = echo) {
    ASSERT_EQ(CommandServer::start(directory_.path(), std::move(handler), &server_, &error_),
              Start::Running)
        << error_;
  }

  CommandResult ask(const std::string& request, std::string* answer) {
    return send_command(directory_.path(), request, answer, &error_);
  }

  void expect_answers() {
    std::string answer;
    EXPECT_EQ(ask("hello", &answer), CommandResult::Answered) << error_;
    EXPECT_EQ(answer, "you said hello");
  }

  TempDirectory directory_;
  std::unique_ptr<CommandServer> server_;
  std::string error_;
};
