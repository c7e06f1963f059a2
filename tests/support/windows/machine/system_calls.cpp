#include "tests/support/windows/machine/system_calls.h"

#include <cstdio>
#include <filesystem>
#include <map>
#include <optional>
#include <utility>

#include "control/windows/handles.h"
#include "control/windows/wide_text.h"
// After what handles.h includes.
#include <dpapi.h>
#include <sddl.h>

namespace {

struct Record {
  std::vector<std::string> lines;
  std::map<std::string, DWORD> failures;
};
std::optional<Record> record;

// True when the call is to fail; the error is set then.
bool fails(const char* name) {
  if (!record || !record->failures.contains(name)) return false;
  SetLastError(record->failures[name]);
  return true;
}

void tell(const char* name, const std::string& arguments) {
  if (record) record->lines.push_back(std::string(name) + " " + arguments);
}

std::string name_of(const wchar_t* path) {
  std::string name = std::filesystem::path(path).filename().string();
  const std::size_t random = name.find(".tmp-");
  return random == std::string::npos ? name : name.substr(0, random) + ".tmp-*";
}

std::string hex(DWORD value) {
  char text[16];
  std::snprintf(text, sizeof(text), "%lx", value);
  return text;
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

// The system's own, by the type of what stands for it here.
template <class Function>
Function* real(const wchar_t* library, const char* name, Function*) {
  return reinterpret_cast<Function*>(
      reinterpret_cast<void*>(GetProcAddress(LoadLibraryW(library), name)));
}

HANDLE WINAPI create_file(const wchar_t* path, DWORD access, DWORD share,
                          SECURITY_ATTRIBUTES* attributes, DWORD disposition, DWORD flags,
                          HANDLE pattern) {
  static auto* const call = real(L"kernel32", "CreateFileW", &create_file);
  tell("CreateFileW", name_of(path) + " access " + hex(access) + " share " + hex(share) + " " +
                          descriptor_of(attributes) + " disposition " + hex(disposition) +
                          " flags " + hex(flags));
  return fails("CreateFileW") ? INVALID_HANDLE_VALUE
                              : call(path, access, share, attributes, disposition, flags, pattern);
}

BOOL WINAPI write_file(HANDLE file, const void* bytes, DWORD size, DWORD* written,
                       OVERLAPPED* overlapped) {
  static auto* const call = real(L"kernel32", "WriteFile", &write_file);
  tell("WriteFile", std::to_string(size));
  if (fails("WriteFile")) {
    *written = size - 1;
    return GetLastError() == ERROR_SUCCESS;
  }
  return call(file, bytes, size, written, overlapped);
}

BOOL WINAPI flush_file(HANDLE file) {
  static auto* const call = real(L"kernel32", "FlushFileBuffers", &flush_file);
  tell("FlushFileBuffers", "");
  return fails("FlushFileBuffers") ? FALSE : call(file);
}

BOOL WINAPI move_file(const wchar_t* from, const wchar_t* to, DWORD flags) {
  static auto* const call = real(L"kernel32", "MoveFileExW", &move_file);
  tell("MoveFileExW", name_of(from) + " to " + name_of(to) + " flags " + hex(flags));
  return fails("MoveFileExW") ? FALSE : call(from, to, flags);
}

BOOL WINAPI delete_file(const wchar_t* path) {
  static auto* const call = real(L"kernel32", "DeleteFileW", &delete_file);
  tell("DeleteFileW", name_of(path));
  return fails("DeleteFileW") ? FALSE : call(path);
}

BOOL WINAPI protect_data(DATA_BLOB* in, const wchar_t* description, DATA_BLOB* entropy,
                         void* reserved, CRYPTPROTECT_PROMPTSTRUCT* prompt, DWORD flags,
                         DATA_BLOB* out) {
  static auto* const call = real(L"crypt32", "CryptProtectData", &protect_data);
  tell("CryptProtectData", to_utf8(description) +
                               (entropy == nullptr ? " no entropy" : " entropy") + " flags " +
                               hex(flags));
  return fails("CryptProtectData") ? FALSE
                                   : call(in, description, entropy, reserved, prompt, flags, out);
}

BOOL WINAPI unprotect_data(DATA_BLOB* in, wchar_t** description, DATA_BLOB* entropy, void* reserved,
                           CRYPTPROTECT_PROMPTSTRUCT* prompt, DWORD flags, DATA_BLOB* out) {
  static auto* const call = real(L"crypt32", "CryptUnprotectData", &unprotect_data);
  tell("CryptUnprotectData",
       (entropy == nullptr ? "no entropy" : "entropy") + std::string(" flags ") + hex(flags));
  return fails("CryptUnprotectData") ? FALSE
                                     : call(in, description, entropy, reserved, prompt, flags, out);
}

}  // namespace

// The places through which a call into a DLL goes: the linker takes these ahead of those of the
// import libraries.
extern "C" {
decltype(&create_file) __imp_CreateFileW = create_file;
decltype(&write_file) __imp_WriteFile = write_file;
decltype(&flush_file) __imp_FlushFileBuffers = flush_file;
decltype(&move_file) __imp_MoveFileExW = move_file;
decltype(&delete_file) __imp_DeleteFileW = delete_file;
decltype(&protect_data) __imp_CryptProtectData = protect_data;
decltype(&unprotect_data) __imp_CryptUnprotectData = unprotect_data;
}

SystemCalls::SystemCalls() {
  record.emplace();
}
SystemCalls::~SystemCalls() {
  record.reset();
}
void SystemCalls::fail(const std::string& name, unsigned long error) {
  record->failures[name] = error;
}
std::vector<std::string> SystemCalls::take() {
  return std::exchange(record->lines, {});
}
