#include <gtest/gtest.h>

#include <thread>

#include "capture/source.h"
#include "control/windows/handles.h"

namespace {

TEST(CaptureThread, HasTheHighestPriorityWhileItsObjectLives) {
  std::thread([] {
    HANDLE const thread = GetCurrentThread();
    {
      const CaptureThreadPriority priority;
      EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_HIGHEST);
    }
    EXPECT_EQ(GetThreadPriority(thread), THREAD_PRIORITY_NORMAL);
  }).join();
}

}  // namespace
