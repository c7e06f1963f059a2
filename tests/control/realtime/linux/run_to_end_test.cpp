#include "control/linux/run_to_end.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "connection/clock.h"
#include "tests/support/linux/environment.h"
#include "tests/support/temp_directory.h"

namespace {

using How = ProgramEnd::How;

constexpr std::uint32_t PATIENCE_MS = 20'000;

class RunToEnd : public testing::Test {
 protected:
  void add(const std::string& name, const std::string& script) const {
    write_file(directory_ / name, "#!/bin/sh\n" + script);
    std::filesystem::permissions(directory_ / name, std::filesystem::perms::owner_all);
  }
  ProgramEnd run(const std::string& script, std::uint32_t timeout_ms = PATIENCE_MS) const {
    add("program", script);
    return run_to_end({"program"}, timeout_ms);
  }

  TempDirectory directory_;
  Variable path_{"PATH", (directory_.path().string() + ":/usr/bin:/bin").c_str()};
};

TEST_F(RunToEnd, GivesStatusAndBothOutputs) {
  const ProgramEnd end = run("echo out; echo err >&2; exit 3\n");
  EXPECT_EQ(end.how, How::Exited);
  EXPECT_EQ(end.status, 3);
  EXPECT_EQ(end.output, "out\nerr\n");
  EXPECT_FALSE(end.succeeded());
}

TEST_F(RunToEnd, ArgumentsPassNoShell) {
  add("program", "printf '<%s>' \"$@\"\n");
  const ProgramEnd end = run_to_end({"program", "a b", "$HOME; `id`", "'\"", ""}, PATIENCE_MS);
  EXPECT_EQ(end.output, "<a b><$HOME; `id`><'\"><>");
  EXPECT_TRUE(end.succeeded());
}

TEST_F(RunToEnd, TheLanguageIsCAndStandardInputIsEmpty) {
  const Variable locale("LC_ALL", "de_DE.UTF-8");
  const Variable language("LANGUAGE", "de");
  EXPECT_EQ(run("echo \"$LC_ALL,${LANGUAGE-unset}\"; cat\n").output, "C,unset\n");
}

TEST_F(RunToEnd, AnIgnoredSignalOfOursIsNotTheProgramsOwn) {
  const auto former = ::signal(SIGTERM, SIG_IGN);
  const ProgramEnd end = run("kill -TERM $$; echo survived\n");
  ::signal(SIGTERM, former);
  EXPECT_EQ(end.how, How::Signalled);
  EXPECT_EQ(end.output, "");
}

// The sleep holds the output open and outlives its parent, unless the whole group is killed.
TEST_F(RunToEnd, WhatTakesTooLongIsKilledWithAllThatItStarted) {
  const ProgramEnd end = run("sleep 1000 & echo $!; wait\n", 500);
  EXPECT_EQ(end.how, How::TimedOut);
  const pid_t sleeper = static_cast<pid_t>(std::stol(end.output));
  // A zombie until whoever adopts it has reaped it.
  bool gone = false;
  for (int i = 0; i < 2'000 && !gone; ++i) {
    const std::string stat = file_content("/proc/" + std::to_string(sleeper) + "/stat");
    gone = stat.empty() || stat.find(") Z ") != std::string::npos;
    usleep(5'000);
  }
  EXPECT_TRUE(gone);
}

TEST_F(RunToEnd, AChildThatKeepsTheOutputOpenHoldsNobodyUp) {
  const std::uint64_t start_us = lund_now_us();
  const ProgramEnd end = run("sleep 15 & echo done\n");
  EXPECT_EQ(end.output, "done\n");
  EXPECT_TRUE(end.succeeded());
  EXPECT_LT(lund_now_us() - start_us, 14'000'000U);
}

TEST_F(RunToEnd, MuchOutputIsReadToTheEndAndCutOff) {
  const ProgramEnd end = run("head -c 1000000 /dev/zero | tr '\\0' x\n");
  EXPECT_TRUE(end.succeeded());
  EXPECT_EQ(end.output, std::string(256 * 1024, 'x'));
}

TEST_F(RunToEnd, ANameThatIsNoProgramIsNotFound) {
  EXPECT_EQ(run_to_end({"no-such-program-here"}, PATIENCE_MS).how, How::NotFound);
  write_file(directory_ / "text", "not executable");
  EXPECT_EQ(run_to_end({"text"}, PATIENCE_MS).how, How::NotFound);
  std::filesystem::create_directory(directory_ / "directory");
  EXPECT_EQ(run_to_end({"directory"}, PATIENCE_MS).how, How::NotFound);
}

TEST_F(RunToEnd, AFileThatTheSystemCannotRunFails) {
  write_file(directory_ / "broken",
             "\x7F"
             "ELF nonsense");
  std::filesystem::permissions(directory_ / "broken", std::filesystem::perms::owner_all);
  EXPECT_EQ(run_to_end({"broken"}, PATIENCE_MS).how, How::Failed);
}

TEST_F(RunToEnd, ADirectoryOfPathThatIsNotAbsoluteIsPassedOver) {
  add("found", "exit 0\n");
  const Variable path("PATH", ("." + std::string("::") + directory_.path().string()).c_str());
  EXPECT_EQ(find_program("found"), directory_ / "found");
  const std::filesystem::path former = std::filesystem::current_path();
  std::filesystem::current_path(directory_.path());
  const Variable here("PATH", ".:");
  EXPECT_EQ(find_program("found"), "");
  std::filesystem::current_path(former);
}

}  // namespace
