#include "tests/support/windows/running_programs.h"

#include <tlhelp32.h>
#include <winternl.h>

#include <algorithm>

#include "control/windows/wide_text.h"

namespace {

// Of RTL_USER_PROCESS_PARAMETERS of 64 bits, behind what winternl.h declares.
constexpr std::size_t ENVIRONMENT_AT = 0x80;
constexpr std::size_t ENVIRONMENT_SIZE_AT = 0x3F0;
constexpr std::size_t ENVIRONMENT_MAX = 1 << 20;

template <class Value>
bool read(HANDLE process, const void* at, Value* value) {
  SIZE_T done = 0;
  return ReadProcessMemory(process, at, value, sizeof *value, &done) && done == sizeof *value;
}

std::wstring read_text(HANDLE process, const void* at, std::size_t bytes) {
  std::wstring text(bytes / sizeof(wchar_t), L'\0');
  SIZE_T done = 0;
  if (!ReadProcessMemory(process, at, text.data(), bytes, &done)) return {};
  text.resize(done / sizeof(wchar_t));
  return text;
}

const BYTE* parameters_of(HANDLE process) {
  using Query = NTSTATUS(NTAPI*)(HANDLE, PROCESSINFOCLASS, void* value, ULONG size, ULONG* needed);
  const auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
      GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "NtQueryInformationProcess")));
  PROCESS_BASIC_INFORMATION basic{};
  PEB block;
  if (query == nullptr ||
      query(process, ProcessBasicInformation, &basic, sizeof basic, nullptr) < 0 ||
      !read(process, basic.PebBaseAddress, &block))
    return nullptr;
  return reinterpret_cast<const BYTE*>(block.ProcessParameters);
}

}  // namespace

std::vector<std::uint32_t> running_programs(const std::wstring& name) {
  std::vector<std::uint32_t> found;
  const Handle all = owned_file(CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
  PROCESSENTRY32W entry{};
  entry.dwSize = sizeof entry;
  for (BOOL more = Process32FirstW(all.get(), &entry); more;
       more = Process32NextW(all.get(), &entry))
    if (_wcsicmp(entry.szExeFile, name.c_str()) == 0) found.push_back(entry.th32ProcessID);
  return found;
}

ProcessTexts texts_of(std::uint32_t id) {
  const Handle process(OpenProcess(PROCESS_QUERY_INFORMATION | PROCESS_VM_READ, FALSE, id));
  const BYTE* const parameters = process ? parameters_of(process.get()) : nullptr;
  RTL_USER_PROCESS_PARAMETERS known;
  const void* environment = nullptr;
  SIZE_T bytes = 0;
  if (parameters == nullptr || !read(process.get(), parameters, &known) ||
      !read(process.get(), parameters + ENVIRONMENT_AT, &environment) ||
      !read(process.get(), parameters + ENVIRONMENT_SIZE_AT, &bytes))
    return {};
  std::wstring variables =
      read_text(process.get(), environment, std::min<std::size_t>(bytes, ENVIRONMENT_MAX));
  std::ranges::replace(variables, L'\0', L'\n');
  return {to_utf8(read_text(process.get(), known.CommandLine.Buffer, known.CommandLine.Length)),
          to_utf8(variables)};
}
