#include "control/host_commands.h"

#include <gtest/gtest.h>

namespace {

using Kind = HostRequest::Kind;

const std::string KEY_TEXT = std::string(62, '0') + "a5";

TEST(HostCommands, EveryRequestIsReadAsItWasWritten) {
  HostRequest request;
  request.seconds = 77;
  request.key.back() = 0xA5;
  request.name = "desk in the attic";
  const std::pair<Kind, std::string> texts[] = {
      {Kind::Status, "status"},
      {Kind::Relays, "relays"},
      {Kind::Pair, "pair 77"},
      {Kind::Authorize, "authorize " + KEY_TEXT + " desk in the attic"},
      {Kind::Remove, "remove " + KEY_TEXT},
  };
  for (const auto& [kind, text] : texts) {
    request.kind = kind;
    EXPECT_EQ(format_request(request), text);
    const auto read = parse_request(text);
    ASSERT_TRUE(read) << text;
    EXPECT_EQ(read->kind, kind);
    EXPECT_EQ(format_request(*read), text);
  }
}

TEST(HostCommands, ASwitchIsAskedForOrSet) {
  const std::pair<Kind, std::string> switches[] = {{Kind::Mute, "mute"},
                                                   {Kind::Clipboard, "clipboard"}};
  for (const auto& [kind, word] : switches) {
    const std::pair<std::optional<bool>, std::string> texts[] = {
        {std::nullopt, word}, {true, word + " on"}, {false, word + " off"}};
    for (const auto& [on, text] : texts) {
      HostRequest request;
      request.kind = kind;
      request.on = on;
      EXPECT_EQ(format_request(request), text);
      const auto read = parse_request(text);
      ASSERT_TRUE(read) << text;
      EXPECT_EQ(read->kind, kind);
      EXPECT_EQ(read->on, on);
    }
    for (const std::string rest : {" On", " 1", " on off", "  on", " on "})
      EXPECT_FALSE(parse_request(word + rest)) << rest;
  }
}

TEST(HostCommands, WhatIsNoRequestIsRefused) {
  for (const std::string text :
       {"", " ", "Status", "status now", "relays x", "pair", "pair ", "pair 0", "pair 86401",
        "pair -1", "pair 12x", "pair +5", "pair 99999999999", "authorize", "authorize 00 name",
        "authorised", "remove", "remove 00"})
    EXPECT_FALSE(parse_request(text)) << text;
  EXPECT_FALSE(parse_request("authorize " + KEY_TEXT + "0 name"));
  EXPECT_FALSE(parse_request("authorize " + std::string(64, 'g') + " name"));
  EXPECT_FALSE(parse_request("remove " + KEY_TEXT + " name"));
}

TEST(HostCommands, ANameMayBeMissingAndIsCleaned) {
  const auto nameless = parse_request("authorize " + KEY_TEXT);
  ASSERT_TRUE(nameless);
  EXPECT_EQ(nameless->name, "");
  EXPECT_EQ(nameless->key.back(), 0xA5);
  const auto named = parse_request("authorize " + KEY_TEXT + " a\nb" + std::string(100, 'c'));
  ASSERT_TRUE(named);
  EXPECT_EQ(named->name, "a b" + std::string(60, 'c'));
}

TEST(HostCommands, AnAnswerSaysWhetherItWasDone) {
  for (const bool done : {true, false}) {
    const auto read = parse_answer(format_answer({done, "two\nlines"}));
    ASSERT_TRUE(read);
    EXPECT_EQ(read->done, done);
    EXPECT_EQ(read->text, "two\nlines");
  }
  EXPECT_FALSE(parse_answer(""));
  EXPECT_FALSE(parse_answer("done"));
}

}  // namespace
