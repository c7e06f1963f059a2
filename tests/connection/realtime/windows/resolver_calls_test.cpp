// The resolver's thread as Windows has it: how it begins, sleeps and is woken.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>

#include "tests/connection/realtime/resolver_support.h"
#include "tests/support/windows/recorded_calls.h"

namespace {

template <class Function>
Function* kernel(const char* name, Function* type) {
  return system_function(L"kernel32.dll", name, type);
}

HANDLE WINAPI create_thread(SECURITY_ATTRIBUTES* attributes, SIZE_T stack,
                            LPTHREAD_START_ROUTINE routine, void* argument, DWORD flags,
                            DWORD* id) {
  static auto* const pass = kernel("CreateThread", &create_thread);
  return RecordedCalls::refuse("CreateThread")
             ? nullptr
             : pass(attributes, stack, routine, argument, flags, id);
}

BOOL WINAPI sleep_under(CONDITION_VARIABLE* variable, SRWLOCK* lock, DWORD ms, ULONG flags) {
  static auto* const pass = kernel("SleepConditionVariableSRW", &sleep_under);
  RecordedCalls::refuse("sleep " + std::to_string(ms) + " flags " + std::to_string(flags));
  return pass(variable, lock, ms, flags);
}

void WINAPI wake(CONDITION_VARIABLE* variable) {
  static auto* const pass = kernel("WakeConditionVariable", &wake);
  RecordedCalls::refuse("wake");
  pass(variable);
}

}  // namespace

extern "C" {
decltype(&create_thread) __imp_CreateThread = create_thread;
decltype(&sleep_under) __imp_SleepConditionVariableSRW = sleep_under;
decltype(&wake) __imp_WakeConditionVariable = wake;
}

namespace {

int not_found(const char*, std::uint16_t, lund_rv_endpoint*) {
  return -1;
}

// With something that goes when the resolver does.
lund_resolver* start_with(std::shared_ptr<int> token) {
  return resolver_start(
      relays_of({"a.example"}), not_found,
      [token = std::move(token)](const char*, std::uint16_t, const lund_rv_endpoint*) {});
}

TEST(ResolverCalls, WithoutAThreadThereIsNoResolverAndNothingIsKept) {
  RecordedCalls calls;
  calls.fail("CreateThread", ERROR_NOT_ENOUGH_MEMORY);
  auto token = std::make_shared<int>();
  const std::weak_ptr<int> kept = token;
  EXPECT_EQ(start_with(std::move(token)), nullptr);
  EXPECT_TRUE(kept.expired());
}

TEST(ResolverCalls, ItsThreadSleepsUntilANameIsDueAndIsWokenToStop) {
  RecordedCalls calls;
  auto token = std::make_shared<int>();
  const std::weak_ptr<int> kept = token;
  lund_resolver* resolver = start_with(std::move(token));
  ASSERT_NE(resolver, nullptr);
  std::vector<std::string> asked;
  const auto sleeping = [&] {
    std::ranges::copy(calls.take(), std::back_inserter(asked));
    return asked.size() >= 2;
  };
  ASSERT_TRUE(soon(sleeping));
  EXPECT_EQ(asked[0], "CreateThread");
  unsigned ms = 0, flags = 1;
  ASSERT_EQ(std::sscanf(asked[1].c_str(), "sleep %u flags %u", &ms, &flags), 2) << asked[1];
  EXPECT_EQ(flags, 0u);
  EXPECT_LE(ms, 10'001u);  // a second try after 10 s
  EXPECT_GT(ms, 1'000u);
  lund_resolver_stop(resolver);
  EXPECT_THAT(calls.take(), testing::Contains("wake"));
  EXPECT_TRUE(soon([&] { return kept.expired(); }));
}

}  // namespace
