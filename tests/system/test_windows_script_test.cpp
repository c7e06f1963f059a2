// What scripts/test-windows and tests/system/windows/on-wine-10 let pass and what they don't, with
// shell scripts for test programs.
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/temp_directory.h"

namespace {

constexpr char PASSES[] = "echo '[       OK ] Suite.Runs (0 ms)'";
constexpr char DIFFERS[] = "echo '[  FAILED  ] Suite.Differs (0 ms)'; exit 1";

class WineScript : public testing::Test {
 protected:
  WineScript() { write_script("wine", "exec \"$@\""); }

  void write_script(const std::string& name, const std::string& commands) {
    write_file(directory_ / name, "#!/bin/sh\n" + commands + "\n");
    std::filesystem::permissions(directory_ / name, std::filesystem::perms::owner_all);
  }

  void list(const std::string& differences) { write_file(directory_ / "list", differences); }
  RunResult run(const std::string& script) {
    return run_program(
        {std::string(LUND_SOURCE_DIR) + "/" + script, "--inside", directory_.path().string()},
        {{"PATH", directory_.path().string() + ":" + getenv("PATH")},
         {"LUND_WINE_DIFFERENCES", (directory_ / "list").string()}});
  }
  static void expect_complaint(const RunResult& result, const std::string& text) {
    EXPECT_EQ(result.status, 1) << result.output;
    EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
  }

 private:
  TempDirectory directory_;
};

class TestWindowsScript : public WineScript {
 protected:
  TestWindowsScript() {
    list("Suite.Differs  a reason\n");
    write_script("some_fuzz.exe", "echo replayed 1 inputs");
  }

  // `run` is what it does without the test that is listed, `listed` what with it alone.
  void write_program(const std::string& run, const std::string& listed = DIFFERS) {
    write_script("some_test.exe",
                 "case \"$*\" in\n*list_tests*) echo Suite.; echo '  Differs' ;;\n*filter=-*) " +
                     run + " ;;\n*) " + listed + " ;;\nesac");
  }

  RunResult test_all() { return run("scripts/test-windows"); }
  void expect_complaint(const std::string& text) {
    WineScript::expect_complaint(test_all(), "test-windows: " + text);
  }
};

TEST_F(TestWindowsScript, IsContentWithTestsThatPassAndListedOnesThatDont) {
  write_program(PASSES);
  const RunResult result = test_all();
  EXPECT_EQ(result.status, 0) << result.output;
  EXPECT_NE(result.output.find("1 tests passed, 1 listed as different"), std::string::npos)
      << result.output;
}

TEST_F(TestWindowsScript, ComplainsOfASkipThatIsNotListed) {
  write_program(std::string(PASSES) + "; echo '[  SKIPPED ] Suite.Skips (0 ms)'");
  expect_complaint("some_test skips what is not listed: Suite.Skips");
}

TEST_F(TestWindowsScript, ComplainsOfAListedTestThatPasses) {
  write_program(PASSES, "echo '[       OK ] Suite.Differs (0 ms)'");
  expect_complaint("Suite.Differs is listed, and passes");
}

// What the other script shows is listed for Wine 8.
TEST_F(TestWindowsScript, LetsWhatWine10PassesPassOnALaterWineAlone) {
  write_program(PASSES, "echo '[       OK ] Suite.Differs (0 ms)'");
  list("Suite.Differs  Wine 8 can't; on-wine-10 runs it\n");
  expect_complaint("Suite.Differs is listed, and passes");
  write_script("wine", "[ \"$1\" != --version ] || exec echo 'wine-8.0 (Debian 8.0)'; exec \"$@\"");
  expect_complaint("Suite.Differs is listed, and passes");
  write_script("wine",
               "[ \"$1\" != --version ] || exec echo 'wine-10.0 (Debian 10.0)'; exec \"$@\"");
  EXPECT_EQ(test_all().status, 0);
  list("Suite.Differs  no Wine can\n");
  expect_complaint("Suite.Differs is listed, and passes");
}

TEST_F(TestWindowsScript, ComplainsOfAListedTestThatIsNotThere) {
  write_program(PASSES);
  list("Suite.Differs  a reason\nSuite.Gone*  it was there\n");
  expect_complaint("Suite.Gone* is listed, and there is no such test");
}

TEST_F(TestWindowsScript, ComplainsOfATestThatFails) {
  write_program("echo '[  FAILED  ] Suite.Runs (0 ms)'; exit 1");
  expect_complaint("some_test ended with 1; failed: Suite.Runs");
}

TEST_F(TestWindowsScript, ComplainsOfAProgramThatEndsAheadOfItsTests) {
  write_program("exit 53");
  expect_complaint("some_test ended with 53");
}

// It may have crashed at its end, after the last of its tests.
TEST_F(TestWindowsScript, ComplainsOfAProgramWhoseTestsAllPassAndWhichFails) {
  write_program(std::string(PASSES) + "; exit 5");
  expect_complaint("some_test ended with 5");
}

TEST_F(TestWindowsScript, ComplainsOfAProgramWithoutTests) {
  write_program("exit 0");
  expect_complaint("some_test has run no test");
}

TEST_F(TestWindowsScript, TakesAListedTestThatCrashesOrSkipsForOneThatDoesNotPass) {
  write_program(PASSES, "kill -SEGV $$");
  EXPECT_EQ(test_all().status, 0);
  write_program(PASSES, "echo '[  SKIPPED ] Suite.Differs (0 ms)'");
  EXPECT_EQ(test_all().status, 0);
}

TEST_F(TestWindowsScript, ComplainsOfAFuzzTargetThatFails) {
  write_program(PASSES);
  write_script("some_fuzz.exe", "echo the last words; exit 3");
  expect_complaint("some_fuzz ended with 3: the last words");
}

class OnWine10Script : public WineScript {
 protected:
  OnWine10Script() {
    write_script("as_system.exe", "exec \"$@\"");
    for (const char* program :
         {"streams_realtime_test", "capture_realtime_test", "control_realtime_test", "control_test",
          "worker_realtime_test", "worker_stages_test", "windows_programs_test"})
      write_script(program + std::string(".exe"), PASSES);
    list("Suite.Runs  Wine 8 can't; on-wine-10 runs it\nSuite.Differs  no Wine can\n");
  }
  RunResult test_all() { return run("tests/system/windows/on-wine-10"); }
};

TEST_F(OnWine10Script, IsContentWhenWhatNamesItHasPassedAndLeavesTheRestOut) {
  write_script("control_test.exe", std::string(PASSES) + "; echo \"$@\"; exit 1");
  const RunResult result = test_all();
  EXPECT_NE(result.output.find("--gtest_filter=IpcTransaction.*-Suite.Differs:"), std::string::npos)
      << result.output;
  write_script("control_test.exe", PASSES);
  EXPECT_EQ(test_all().status, 0);
}

TEST_F(OnWine10Script, ComplainsOfALineThatNamesItAndOfWhichNothingRan) {
  list("Suite.Runs  on-wine-10 runs it\nSuite.Gone*  on-wine-10 runs it\n");
  expect_complaint(test_all(), "on-wine-10: Suite.Gone* is said to run here, and has not");
}

TEST_F(OnWine10Script, ComplainsOfAProgramThatFailsSkipsOrRunsNothing) {
  for (const std::string& does :
       {PASSES + std::string("; exit 1"),
        PASSES + std::string("; echo '[  SKIPPED ] Suite.Skips (0 ms)'"), std::string("exit 0")}) {
    write_script("control_test.exe", does);
    expect_complaint(test_all(), "on-wine-10: control_test by the system ended with ");
  }
}

}  // namespace
