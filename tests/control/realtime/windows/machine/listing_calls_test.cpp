// How the machine's store looks through its directory, and what it makes of a directory that can't
// be looked through.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "control/keystore.h"
#include "control/store_platform.h"
#include "tests/support/machine_store.h"
#include "tests/support/windows/recorded_calls.h"

namespace {

template <class Function>
Function* kernel(const char* name, Function* type) {
  return system_function(L"kernel32.dll", name, type);
}

HANDLE WINAPI find_first(const wchar_t* path, WIN32_FIND_DATAW* found) {
  static auto* const pass = kernel("FindFirstFileW", &find_first);
  return RecordedCalls::refuse("first of " + std::filesystem::path(path).filename().string())
             ? INVALID_HANDLE_VALUE
             : pass(path, found);
}

BOOL WINAPI find_next(HANDLE listing, WIN32_FIND_DATAW* found) {
  static auto* const pass = kernel("FindNextFileW", &find_next);
  return RecordedCalls::refuse("next") ? FALSE : pass(listing, found);
}

BOOL WINAPI find_close(HANDLE listing) {
  static auto* const pass = kernel("FindClose", &find_close);
  RecordedCalls::refuse("close");
  return pass(listing);
}

}  // namespace

extern "C" {
decltype(&find_first) __imp_FindFirstFileW = find_first;
decltype(&find_next) __imp_FindNextFileW = find_next;
decltype(&find_close) __imp_FindClose = find_close;
}

namespace {

using testing::ElementsAre;

class MachineListing : public testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(store_.configure(), ""); }

  MachineStore store_;
};

// The directory itself, the one above, and the identity.
TEST_F(MachineListing, IsReadToItsEndAndClosedOnce) {
  RecordedCalls calls;
  EXPECT_EQ(store_.configure(), "");
  EXPECT_THAT(calls.take(), ElementsAre("first of *", "next", "next", "next", "close"));
}

TEST_F(MachineListing, ThatBreaksOffRefusesTheStoreAndIsClosedAllTheSame) {
  RecordedCalls calls;
  calls.fail("next", ERROR_ACCESS_DENIED);
  EXPECT_EQ(store_.configure(), "machine directory enumeration failed");
  EXPECT_THAT(calls.take(), ElementsAre("first of *", "next", "close"));
}

TEST_F(MachineListing, ThatCannotBeginRefusesTheStoreUnlessThereIsNothingToList) {
  RecordedCalls calls;
  for (const DWORD error : {ERROR_ACCESS_DENIED, ERROR_PATH_NOT_FOUND}) {
    calls.fail("first", error, 1);
    EXPECT_EQ(store_.configure(), "machine directory enumeration failed");
    EXPECT_THAT(calls.take(), ElementsAre("first of *"));
  }
  calls.fail("first", ERROR_FILE_NOT_FOUND, 1);
  EXPECT_EQ(store_.configure(), "");
}

TEST_F(MachineListing, ANameOfWhichNothingCanBeToldIsNotThatOfAMissingFile) {
  EXPECT_TRUE(store_platform::is_absent(store_ / "nothing"));
  EXPECT_TRUE(store_platform::is_absent(store_.path() / "nothing" / "below"));
  EXPECT_FALSE(store_platform::is_absent(store_ / "identity"));
  EXPECT_FALSE(store_platform::is_absent(store_ / "no*name"));
}

}  // namespace
