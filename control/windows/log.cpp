#include "control/log_platform.h"
#include "control/windows/known_folder.h"
#include "control/windows/store_attributes.h"

namespace log_platform {

namespace {

HANDLE handle_of(File file) {
  return reinterpret_cast<HANDLE>(file);
}

// What is opened is a link itself, where there is one: nobody reads a log from inside a link.
bool is_link(HANDLE file) {
  BY_HANDLE_FILE_INFORMATION information;
  return !GetFileInformationByHandle(file, &information) ||
         (information.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
}

}  // namespace

const char* const NAME = "Windows";

LocalTime local_time() {
  SYSTEMTIME local;
  GetLocalTime(&local);
  return {local.wYear,   local.wMonth,  local.wDay,         local.wHour,
          local.wMinute, local.wSecond, local.wMilliseconds};
}

unsigned long process_id() {
  return GetCurrentProcessId();
}

std::filesystem::path user_log_directory() {
  std::filesystem::path directory = own_directory(FOLDERID_LocalAppData);
  if (!directory.empty()) CreateDirectoryW(directory.c_str(), nullptr);
  return directory;
}

Opening open_append(keystore::HostStoreScope scope, const std::filesystem::path& path, File* file) {
  SecurityAttributes attributes;
  if (scope == keystore::Machine) {
    attributes = store_file_attributes(scope);
    if (!attributes) return Opening::Unprotected;
  }
  Handle opened = owned_file(
      CreateFileW(path.c_str(), FILE_APPEND_DATA,
                  FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, attributes.get(),
                  OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!opened || is_link(opened.get())) return Opening::Failed;
  *file = reinterpret_cast<File>(opened.release());
  return Opening::Done;
}

std::int64_t file_size(File file) {
  LARGE_INTEGER size;
  return GetFileSizeEx(handle_of(file), &size) ? size.QuadPart : 0;
}

std::size_t write(File file, const char* bytes, std::size_t size) {
  DWORD written = 0;
  return WriteFile(handle_of(file), bytes, static_cast<DWORD>(size), &written, nullptr) ? written
                                                                                        : 0;
}

void close(File file) {
  CloseHandle(handle_of(file));
}

void replace(const std::filesystem::path& from, const std::filesystem::path& to) {
  MoveFileExW(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING);
}

}  // namespace log_platform
