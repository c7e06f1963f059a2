#include "tests/support/windows/desktops/desktop_calls.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <map>
#include <utility>

#include "tests/support/windows/recorded_calls.h"

namespace {

struct Record {
  DesktopCalls* behaviour = nullptr;  // null: the system's own
  std::map<HDESK, std::wstring> open;
  std::uintptr_t last = 0;
  HDESK attached = nullptr;
  std::vector<std::string> lines;
};
Record record;

// As no handle of the system's is, and never null.
constexpr std::uintptr_t OWN = 0x10'0000;
HDESK handle(std::uintptr_t number) {
  return reinterpret_cast<HDESK>(OWN + number);
}
void tell(const std::string& what, HDESK desktop) {
  record.lines.push_back(what + std::to_string(reinterpret_cast<std::uintptr_t>(desktop) - OWN));
}

HDESK WINAPI open_input(DWORD flags, BOOL inherits, ACCESS_MASK access) {
  static auto* const call = system_function(L"user32", "OpenInputDesktop", &open_input);
  if (!record.behaviour) return call(flags, inherits, access);
  EXPECT_EQ(flags, 0u);
  EXPECT_FALSE(inherits);
  if (!record.behaviour->opens) {
    SetLastError(ERROR_ACCESS_DENIED);
    return nullptr;
  }
  const HDESK opened = handle(++record.last);
  record.open[opened] = record.behaviour->input;
  char text[32];
  std::snprintf(text, sizeof(text), "open %lx: ", access);
  tell(text, opened);
  return opened;
}

BOOL WINAPI read_information(HANDLE object, int which, void* out, DWORD size, DWORD* needed) {
  static auto* const call =
      system_function(L"user32", "GetUserObjectInformationW", &read_information);
  if (!record.behaviour) return call(object, which, out, size, needed);
  EXPECT_EQ(which, UOI_NAME);
  EXPECT_EQ(size, 512u);
  const auto found = record.open.find(static_cast<HDESK>(object));
  if (!record.behaviour->tells_names || found == record.open.end()) {
    SetLastError(ERROR_INVALID_HANDLE);
    return FALSE;
  }
  *needed = static_cast<DWORD>((found->second.size() + 1) * sizeof(wchar_t));
  std::copy_n(found->second.c_str(), found->second.size() + 1, static_cast<wchar_t*>(out));
  return TRUE;
}

BOOL WINAPI attach_thread(HDESK desktop) {
  static auto* const call = system_function(L"user32", "SetThreadDesktop", &attach_thread);
  if (!record.behaviour) return call(desktop);
  tell("attach ", desktop);
  if (!record.behaviour->attaches) {
    SetLastError(ERROR_BUSY);
    return FALSE;
  }
  record.attached = desktop;
  return TRUE;
}

HDESK WINAPI desktop_of_thread(DWORD thread) {
  static auto* const call = system_function(L"user32", "GetThreadDesktop", &desktop_of_thread);
  return record.behaviour ? record.attached : call(thread);
}

BOOL WINAPI close_desktop(HDESK desktop) {
  static auto* const call = system_function(L"user32", "CloseDesktop", &close_desktop);
  if (!record.behaviour) return call(desktop);
  tell("close ", desktop);
  EXPECT_NE(desktop, record.attached) << "a desktop that a thread is on can't be closed";
  EXPECT_EQ(record.open.erase(desktop), 1u) << "isn't open";
  return TRUE;
}

}  // namespace

// The places through which a call into the DLL goes: the linker takes these ahead of those of the
// import library.
extern "C" {
decltype(&open_input) __imp_OpenInputDesktop = open_input;
decltype(&read_information) __imp_GetUserObjectInformationW = read_information;
decltype(&attach_thread) __imp_SetThreadDesktop = attach_thread;
decltype(&desktop_of_thread) __imp_GetThreadDesktop = desktop_of_thread;
decltype(&close_desktop) __imp_CloseDesktop = close_desktop;
}

DesktopCalls::DesktopCalls() {
  record = {};
  record.behaviour = this;
  record.attached = handle(0);
}
DesktopCalls::~DesktopCalls() {
  record = {};
}
void DesktopCalls::leave() {
  record.attached = handle(0);
}
std::vector<std::string> DesktopCalls::take() {
  return std::exchange(record.lines, {});
}
int DesktopCalls::open_handles() const {
  return static_cast<int>(record.open.size());
}
