#include "host/thread_priority.h"

#include <gtest/gtest.h>
#include <windows.h>

#include <thread>

TEST(ThreadPriority, TheReceivingThreadIsRaisedAndNoOther) {
  int raised = 0;
  std::thread([&raised] {
    raise_receive_priority();
    raised = GetThreadPriority(GetCurrentThread());
  }).join();
  EXPECT_EQ(raised, 2);
  EXPECT_EQ(GetThreadPriority(GetCurrentThread()), THREAD_PRIORITY_NORMAL);
}
