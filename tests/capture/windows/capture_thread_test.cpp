// What a capturing thread asks the schedulers for, and that it gives it back.
#include "capture/windows/capture_thread.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "control/windows/wide_text.h"

namespace {

using testing::ElementsAre;

class CaptureScheduling : public testing::Test {
 protected:
  CaptureScheduling() {
    calls_.join_task = [this](const wchar_t* task, DWORD* index) -> HANDLE {
      EXPECT_EQ(*index, 0u) << "a task of its own";
      seen_.push_back("join " + to_utf8(task));
      return task == offered_ ? TASK : nullptr;
    };
    calls_.set_task_priority = [this](HANDLE task, AVRT_PRIORITY priority) -> BOOL {
      EXPECT_EQ(task, TASK);
      seen_.push_back("task's priority " + std::to_string(priority));
      return TRUE;
    };
    calls_.leave_task = [this](HANDLE task) -> BOOL {
      EXPECT_EQ(task, TASK);
      seen_.push_back("leave");
      return TRUE;
    };
    calls_.set_priority = [this](HANDLE thread, int priority) -> BOOL {
      EXPECT_EQ(thread, GetCurrentThread());
      seen_.push_back("priority " + std::to_string(priority));
      return TRUE;
    };
    calls_.begin_period = [this](UINT ms) -> MMRESULT {
      seen_.push_back("begin " + std::to_string(ms));
      return TIMERR_NOERROR;
    };
    calls_.end_period = [this](UINT ms) -> MMRESULT {
      seen_.push_back("end " + std::to_string(ms));
      return TIMERR_NOERROR;
    };
  }

  static inline const HANDLE TASK = reinterpret_cast<HANDLE>(0x12345);
  std::wstring offered_ = L"Capture";
  SchedulingCalls calls_;
  std::vector<std::string> seen_;
};

TEST_F(CaptureScheduling, JoinsTheTaskOfCapturingWithHighPriority) {
  EXPECT_EQ(raise_priority(calls_), TASK);
  EXPECT_THAT(seen_, ElementsAre("join Capture", "task's priority 1", "priority 2", "begin 1"));
}

TEST_F(CaptureScheduling, JoinsThatOfGamesWhereThereIsNoneOfCapturing) {
  offered_ = L"Games";
  EXPECT_EQ(raise_priority(calls_), TASK);
  EXPECT_THAT(seen_, ElementsAre("join Capture", "join Games", "task's priority 1", "priority 2",
                                 "begin 1"));
}

TEST_F(CaptureScheduling, WithoutATaskItsOwnPriorityIsTheHighestAllTheSame) {
  offered_ = L"neither";
  EXPECT_EQ(raise_priority(calls_), nullptr);
  EXPECT_THAT(seen_, ElementsAre("join Capture", "join Games", "priority 2", "begin 1"));
}

TEST_F(CaptureScheduling, AllIsGivenBack) {
  restore_priority(TASK, calls_);
  EXPECT_THAT(seen_, ElementsAre("end 1", "priority 0", "leave"));
}

TEST_F(CaptureScheduling, ATaskThatWasNotJoinedIsNotLeft) {
  restore_priority(nullptr, calls_);
  EXPECT_THAT(seen_, ElementsAre("end 1", "priority 0"));
}

}  // namespace
