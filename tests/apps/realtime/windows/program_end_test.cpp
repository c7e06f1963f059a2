// How a program ends that aborts, as its exit code says.
#include <gtest/gtest.h>

#include "tests/support/child_process.h"

namespace {

constexpr std::uint32_t FAIL_FAST_EXCEPTION = 0xC000'0602;  // STATUS_FAIL_FAST_EXCEPTION

class AbortingProgram : public testing::TestWithParam<const char*> {};

TEST_P(AbortingProgram, EndsByAnExceptionAndNotWithAnExitCodeOfItsOwn) {
  const RunResult result = run_program({own_program("aborting"), GetParam()});
  EXPECT_EQ(static_cast<std::uint32_t>(result.status), FAIL_FAST_EXCEPTION) << result.output;
}
INSTANTIATE_TEST_SUITE_P(In, AbortingProgram, testing::Values("abort", "assert", "throw", "thread"),
                         [](const auto& way) { return std::string(way.param); });

TEST(ProgramThatEndsByItself, HasItsOwnExitCode) {
  EXPECT_EQ(run_program({own_program("aborting"), "no"}).status, 3);
}

}  // namespace
