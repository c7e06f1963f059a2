#include "tests/support/windows/recorded_calls.h"

#include <algorithm>
#include <mutex>
#include <optional>
#include <utility>

namespace {

struct Failure {
  std::string beginning;
  DWORD error = 0;
  int times = 0;
};
struct Record {
  std::vector<std::string> calls;
  std::vector<Failure> failures;
};

std::mutex mutex;
std::optional<Record> record;

}  // namespace

RecordedCalls::RecordedCalls() {
  const std::scoped_lock lock(mutex);
  record.emplace();
}
RecordedCalls::~RecordedCalls() {
  const std::scoped_lock lock(mutex);
  record.reset();
}

void RecordedCalls::fail(const std::string& beginning, DWORD error, int times) {
  const std::scoped_lock lock(mutex);
  record->failures.push_back({beginning, error, times});
}

void RecordedCalls::let_pass() {
  const std::scoped_lock lock(mutex);
  record->failures.clear();
}

std::vector<std::string> RecordedCalls::take() {
  const std::scoped_lock lock(mutex);
  return std::exchange(record->calls, {});
}

bool RecordedCalls::refuse(const std::string& call) {
  const std::scoped_lock lock(mutex);
  if (!record) return false;
  record->calls.push_back(call);
  const auto failure = std::ranges::find_if(record->failures, [&](const Failure& one) {
    return one.times != 0 && call.starts_with(one.beginning);
  });
  if (failure == record->failures.end()) return false;
  if (failure->times > 0) --failure->times;
  SetLastError(failure->error);
  return true;
}

std::ptrdiff_t count_calls(const std::vector<std::string>& calls, const std::string& beginning) {
  return std::ranges::count_if(
      calls, [&](const std::string& call) { return call.starts_with(beginning); });
}
