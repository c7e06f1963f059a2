#include "tests/support/windows/resource_count.h"

#include "control/windows/handles.h"
// After what handles.h includes.
#include <psapi.h>
#include <winternl.h>

#include <cstring>
#include <vector>

namespace {

// Wine counts no GDI objects and no handles for a process that asks, but keeps the tables that
// Windows keeps them in: GDI's, shared with every process, and the system's of all handles.
constexpr std::size_t PEB_GDI_TABLE_AT = 0xF8;
constexpr std::size_t GDI_ENTRIES = 65'536;
struct GdiEntry {
  void* object;
  WORD process, reserved;
  WORD generation;
  BYTE type;  // 0: the entry is free
  BYTE flags;
  void* user;
};
static_assert(sizeof(GdiEntry) == 24);

std::uint32_t gdi_objects() {
  if (const DWORD counted = GetGuiResources(GetCurrentProcess(), GR_GDIOBJECTS)) return counted;
  const auto* peb = reinterpret_cast<const std::uint8_t*>(NtCurrentTeb()->ProcessEnvironmentBlock);
  const GdiEntry* table = nullptr;
  std::memcpy(&table, peb + PEB_GDI_TABLE_AT, sizeof table);
  std::uint32_t count = 0;
  for (std::size_t i = 0; table != nullptr && i < GDI_ENTRIES; ++i) count += table[i].type != 0;
  return count;
}

std::uint32_t message_windows() {
  std::uint32_t count = 0;
  HWND window = nullptr;
  while ((window = FindWindowExW(HWND_MESSAGE, window, nullptr, nullptr)) != nullptr) {
    DWORD process = 0;
    GetWindowThreadProcessId(window, &process);
    count += process == GetCurrentProcessId();
  }
  return count;
}

struct SystemHandle {
  void* object;
  ULONG_PTR process;
  ULONG_PTR value;
  ULONG access;
  USHORT creator_trace, type;
  ULONG attributes, reserved;
};
struct SystemHandles {
  ULONG_PTR count;
  ULONG_PTR reserved;
};

std::uint32_t handles() {
  DWORD counted = 0;
  if (GetProcessHandleCount(GetCurrentProcess(), &counted) && counted != 0) return counted;
  // By its number: the headers name few of what can be asked.
  using Query = NTSTATUS(NTAPI*)(ULONG what, void* buffer, ULONG size, ULONG* needed);
  constexpr ULONG EXTENDED_HANDLES = 64;
  constexpr NTSTATUS TOO_SMALL = static_cast<NTSTATUS>(0xC0000004);
  const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"ntdll"), "NtQuerySystemInformation")));
  std::vector<std::uint8_t> buffer(1 << 20);
  ULONG size = 0;
  while (query(EXTENDED_HANDLES, buffer.data(), static_cast<ULONG>(buffer.size()), &size) ==
         TOO_SMALL)
    buffer.resize(buffer.size() * 2);
  SystemHandles head{};
  std::memcpy(&head, buffer.data(), sizeof head);
  std::uint32_t count = 0;
  for (std::size_t i = 0; i < head.count; ++i) {
    SystemHandle handle{};
    std::memcpy(&handle, &buffer[sizeof head + i * sizeof handle], sizeof handle);
    count += handle.process == GetCurrentProcessId();
  }
  return count;
}

// Wine tells of the working set alone, from which it takes nothing away.
std::uint64_t memory_bytes() {
  PROCESS_MEMORY_COUNTERS_EX memory{};
  GetProcessMemoryInfo(GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&memory),
                       sizeof memory);
  return memory.PrivateUsage != 0 ? memory.PrivateUsage : memory.WorkingSetSize;
}

}  // namespace

ResourceCount count_resources() {
  return {gdi_objects(), message_windows(), handles(), memory_bytes()};
}
