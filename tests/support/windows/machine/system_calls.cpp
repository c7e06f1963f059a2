#include "tests/support/windows/machine/system_calls.h"

#include <cstdio>
#include <map>
#include <optional>
#include <utility>

#include "control/windows/wide_text.h"
#include "tests/support/windows/machine/call_record.h"
// After what handles.h includes.
#include <sddl.h>

namespace {

struct Record {
  std::set<SystemCalls::Of> kinds;
  std::vector<std::string> lines;
  std::map<std::string, unsigned long> failures, answers;
};
std::optional<Record> record;

std::optional<unsigned long> value_of(const std::map<std::string, unsigned long>& values,
                                      const std::string& key) {
  const auto found = values.find(key);
  return found == values.end() ? std::nullopt : std::optional(found->second);
}

}  // namespace

namespace call_record {

Fate tell(SystemCalls::Of kind, const std::string& name, const std::string& arguments) {
  if (!record || !record->kinds.contains(kind)) return {};
  const std::string line = name + " " + arguments;
  record->lines.push_back(line);
  for (const std::string& call : {name, line}) {
    const auto error = value_of(record->failures, call);
    if (!error) continue;
    SetLastError(*error);
    return {true, std::nullopt};
  }
  return {false, value_of(record->answers, line)};
}

std::string hex(unsigned long value) {
  char text[16];
  std::snprintf(text, sizeof(text), "%lx", value);
  return text;
}

std::string text(const wchar_t* wide) {
  return wide != nullptr ? to_utf8(wide) : "none";
}

std::string descriptor_of(const SECURITY_ATTRIBUTES* attributes) {
  if (attributes == nullptr || attributes->lpSecurityDescriptor == nullptr) return "default";
  LocalMemory<wchar_t> text;
  ConvertSecurityDescriptorToStringSecurityDescriptorW(
      attributes->lpSecurityDescriptor, SDDL_REVISION_1,
      OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
      text.receive(), nullptr);
  return text ? to_utf8(text.get()) : "unreadable";
}

}  // namespace call_record

SystemCalls::SystemCalls(std::set<Of> kinds) {
  record.emplace();
  record->kinds = std::move(kinds);
}
SystemCalls::~SystemCalls() {
  record.reset();
}
void SystemCalls::fail(const std::string& call, unsigned long error) {
  record->failures[call] = error;
}
void SystemCalls::answer(const std::string& line, unsigned long value) {
  record->answers[line] = value;
}
void SystemCalls::pass() {
  record->failures.clear();
  record->answers.clear();
}
std::vector<std::string> SystemCalls::take() {
  return std::exchange(record->lines, {});
}
