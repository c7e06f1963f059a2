// The sound thread's calls of the multimedia scheduler, which has nothing to show under Wine.
#include <gmock/gmock.h>

#include "control/windows/handles.h"
#include "streams/audio_source.h"

using testing::ElementsAre;

namespace {

// Of one thread at a time; null: the calls of other tests, which nobody looks at.
std::vector<std::string>* calls = nullptr;
bool refuses = false;

int task;  // what its handle is the address of

HANDLE WINAPI join(const wchar_t* name, DWORD* index) {
  if (!calls) return nullptr;
  EXPECT_EQ(*index, 0u);
  calls->push_back(name == std::wstring(L"Audio") ? "join Audio" : "join another class");
  return refuses ? nullptr : &task;
}

BOOL WINAPI leave(HANDLE joined) {
  if (calls) calls->push_back(joined == &task ? "leave" : "leave what was not joined");
  return TRUE;
}

}  // namespace

// The places through which a call into the DLL goes: the linker takes these ahead of those of the
// import library.
extern "C" {
decltype(&join) __imp_AvSetMmThreadCharacteristicsW = join;
decltype(&leave) __imp_AvRevertMmThreadCharacteristics = leave;
}

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
