#include <filesystem>

#include "control/windows/wide_text.h"
#include "tests/support/windows/machine/call_record.h"
// After what handles.h includes.
#include <dpapi.h>

namespace {

using namespace call_record;
using Of = SystemCalls::Of;

std::string name_of(const wchar_t* path) {
  std::string name = std::filesystem::path(path).filename().string();
  const std::size_t random = name.find(".tmp-");
  return random == std::string::npos ? name : name.substr(0, random) + ".tmp-*";
}

HANDLE WINAPI create_file(const wchar_t* path, DWORD access, DWORD share,
                          SECURITY_ATTRIBUTES* attributes, DWORD disposition, DWORD flags,
                          HANDLE pattern) {
  static auto* const call = real(L"kernel32", "CreateFileW", &create_file);
  const Fate fate = tell(Of::Files, "CreateFileW",
                         name_of(path) + " access " + hex(access) + " share " + hex(share) + " " +
                             descriptor_of(attributes) + " disposition " + hex(disposition) +
                             " flags " + hex(flags));
  return fate.fails ? INVALID_HANDLE_VALUE
                    : call(path, access, share, attributes, disposition, flags, pattern);
}

BOOL WINAPI write_file(HANDLE file, const void* bytes, DWORD size, DWORD* written,
                       OVERLAPPED* overlapped) {
  static auto* const call = real(L"kernel32", "WriteFile", &write_file);
  if (tell(Of::Files, "WriteFile", std::to_string(size)).fails) {
    *written = size - 1;
    return GetLastError() == ERROR_SUCCESS;
  }
  return call(file, bytes, size, written, overlapped);
}

BOOL WINAPI flush_file(HANDLE file) {
  static auto* const call = real(L"kernel32", "FlushFileBuffers", &flush_file);
  return tell(Of::Files, "FlushFileBuffers", "").fails ? FALSE : call(file);
}

BOOL WINAPI move_file(const wchar_t* from, const wchar_t* to, DWORD flags) {
  static auto* const call = real(L"kernel32", "MoveFileExW", &move_file);
  const Fate fate =
      tell(Of::Files, "MoveFileExW", name_of(from) + " to " + name_of(to) + " flags " + hex(flags));
  return fate.fails ? FALSE : call(from, to, flags);
}

BOOL WINAPI delete_file(const wchar_t* path) {
  static auto* const call = real(L"kernel32", "DeleteFileW", &delete_file);
  return tell(Of::Files, "DeleteFileW", name_of(path)).fails ? FALSE : call(path);
}

BOOL WINAPI protect_data(DATA_BLOB* in, const wchar_t* description, DATA_BLOB* entropy,
                         void* reserved, CRYPTPROTECT_PROMPTSTRUCT* prompt, DWORD flags,
                         DATA_BLOB* out) {
  static auto* const call = real(L"crypt32", "CryptProtectData", &protect_data);
  const Fate fate = tell(Of::Files, "CryptProtectData",
                         text(description) + (entropy == nullptr ? " no entropy" : " entropy") +
                             " flags " + hex(flags));
  return fate.fails ? FALSE : call(in, description, entropy, reserved, prompt, flags, out);
}

BOOL WINAPI unprotect_data(DATA_BLOB* in, wchar_t** description, DATA_BLOB* entropy, void* reserved,
                           CRYPTPROTECT_PROMPTSTRUCT* prompt, DWORD flags, DATA_BLOB* out) {
  static auto* const call = real(L"crypt32", "CryptUnprotectData", &unprotect_data);
  const Fate fate =
      tell(Of::Files, "CryptUnprotectData",
           (entropy == nullptr ? "no entropy" : "entropy") + std::string(" flags ") + hex(flags));
  return fate.fails ? FALSE : call(in, description, entropy, reserved, prompt, flags, out);
}

}  // namespace

extern "C" {
decltype(&create_file) __imp_CreateFileW = create_file;
decltype(&write_file) __imp_WriteFile = write_file;
decltype(&flush_file) __imp_FlushFileBuffers = flush_file;
decltype(&move_file) __imp_MoveFileExW = move_file;
decltype(&delete_file) __imp_DeleteFileW = delete_file;
decltype(&protect_data) __imp_CryptProtectData = protect_data;
decltype(&unprotect_data) __imp_CryptUnprotectData = unprotect_data;
}
