#include "worker/windows/display_awake.h"

#include <gmock/gmock.h>

#include <thread>

#include "control/windows/handles.h"
#include "tests/support/windows/machine/system_calls.h"

namespace {

// What this thread has asked for. There is no other way to be told than to ask for something else.
EXECUTION_STATE asked() {
  const EXECUTION_STATE former = SetThreadExecutionState(ES_CONTINUOUS);
  SetThreadExecutionState(former);
  return former;
}

TEST(DisplayAwake, DisplayAndSystemAreAskedForUntilTheyAreLetGo) {
  EXPECT_TRUE(set_display_awake(true));
  EXPECT_EQ(asked(), ES_CONTINUOUS | ES_SYSTEM_REQUIRED | ES_DISPLAY_REQUIRED);
  EXPECT_TRUE(set_display_awake(true));
  EXPECT_EQ(asked(), ES_CONTINUOUS | ES_SYSTEM_REQUIRED | ES_DISPLAY_REQUIRED);
  EXPECT_TRUE(set_display_awake(false));
  EXPECT_EQ(asked(), ES_CONTINUOUS);
}

TEST(DisplayAwake, ARequestThatIsRefusedIsAFailure) {
  SystemCalls calls({SystemCalls::Of::Process});
  calls.fail("SetThreadExecutionState", ERROR_INVALID_PARAMETER);
  EXPECT_FALSE(set_display_awake(true));
  EXPECT_FALSE(set_display_awake(false));
  EXPECT_THAT(calls.take(), testing::ElementsAre("SetThreadExecutionState 80000003",
                                                 "SetThreadExecutionState 80000000"));
}

}  // namespace
