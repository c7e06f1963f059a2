// What scripts/test-windows lets pass and what it doesn't, with shell scripts for test programs.
#include <gtest/gtest.h>

#include "tests/support/child_process.h"
#include "tests/support/temp_directory.h"

namespace {

constexpr char PASSES[] = "echo '[       OK ] Suite.Runs (0 ms)'";
constexpr char DIFFERS[] = "echo '[  FAILED  ] Suite.Differs (0 ms)'; exit 1";

class TestWindowsScript : public testing::Test {
 protected:
  TestWindowsScript() {
    write_script("wine", "exec \"$@\"");
    list("Suite.Differs  a reason\n");
    write_script("some_fuzz.exe", "echo replayed 1 inputs");
  }

  void write_script(const std::string& name, const std::string& commands) {
    write_file(directory_ / name, "#!/bin/sh\n" + commands + "\n");
    std::filesystem::permissions(directory_ / name, std::filesystem::perms::owner_all);
  }

  void list(const std::string& differences) { write_file(directory_ / "list", differences); }
  // `run` is what it does without the test that is listed, `listed` what with it alone.
  void write_program(const std::string& run, const std::string& listed = DIFFERS) {
    write_script("some_test.exe",
                 "case \"$*\" in\n*list_tests*) echo Suite.; echo '  Differs' ;;\n*filter=-*) " +
                     run + " ;;\n*) " + listed + " ;;\nesac");
  }

  RunResult test_all() {
    return run_program({std::string(LUND_SOURCE_DIR) + "/scripts/test-windows", "--inside",
                        directory_.path().string()},
                       {{"PATH", directory_.path().string() + ":" + getenv("PATH")},
                        {"LUND_WINE_DIFFERENCES", (directory_ / "list").string()}});
  }
  void expect_complaint(const std::string& text) {
    const RunResult result = test_all();
    EXPECT_EQ(result.status, 1) << result.output;
    EXPECT_NE(result.output.find("test-windows: " + text), std::string::npos) << result.output;
  }

 private:
  TempDirectory directory_;
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

}  // namespace
