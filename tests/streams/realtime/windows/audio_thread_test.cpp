// The sound thread's calls of the multimedia scheduler, which has nothing to show under Wine.
#include <gmock/gmock.h>

#include "control/windows/handles.h"
#include "streams/audio_source.h"
// After what handles.h includes.
#include <avrt.h>

using testing::ElementsAre;

namespace {

// Of one thread at a time; null: the calls of other tests, which nobody looks at.
std::vector<std::string>* calls = nullptr;
bool refuses = false;

int task;  // what its handle is the address of

}  // namespace

// The linker takes these ahead of the import library's.
extern "C" {

HANDLE WINAPI AvSetMmThreadCharacteristicsW(const wchar_t* name, DWORD* index) {
  if (!calls) return nullptr;
  EXPECT_EQ(*index, 0u);
  calls->push_back(name == std::wstring(L"Audio") ? "join Audio" : "join another class");
  return refuses ? nullptr : &task;
}

BOOL WINAPI AvRevertMmThreadCharacteristics(HANDLE joined) {
  if (calls) calls->push_back(joined == &task ? "leave" : "leave what was not joined");
  return TRUE;
}

}  // extern "C"

namespace {

class AudioThread : public testing::Test {
 protected:
  AudioThread() { calls = &calls_; }
  ~AudioThread() override {
    calls = nullptr;
    refuses = false;
  }

  std::vector<std::string> calls_;
};

TEST_F(AudioThread, IsOfTheClassAudioWhileItsObjectLives) {
  {
    const AudioThreadPriority priority;
    EXPECT_THAT(calls_, ElementsAre("join Audio"));
  }
  EXPECT_THAT(calls_, ElementsAre("join Audio", "leave"));
}

TEST_F(AudioThread, LeavesNothingWhereItIsRefused) {
  refuses = true;
  { const AudioThreadPriority priority; }
  EXPECT_THAT(calls_, ElementsAre("join Audio"));
}

}  // namespace
