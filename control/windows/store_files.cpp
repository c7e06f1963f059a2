#include <mutex>
#include <shared_mutex>

#include "control/store_platform.h"
#include "control/windows/known_folder.h"
#include "control/windows/store_attributes.h"

namespace store_platform {

namespace {

bool is_missing(DWORD error) {
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND;
}

bool write_whole(HANDLE file, const void* data, std::size_t size) {
  DWORD written = 0;
  return size <= MAXDWORD &&
         WriteFile(file, data, static_cast<DWORD>(size), &written, nullptr) != 0 &&
         written == size && FlushFileBuffers(file) != 0;
}

bool names_directory(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return attributes != INVALID_FILE_ATTRIBUTES && (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// A file that is open can't be replaced, so one thread's reading and another's replacing keep off
// each other.
std::shared_mutex& replacing() {
  static std::shared_mutex& mutex = *new std::shared_mutex;
  return mutex;
}

// Other programs, a scanner of files or another one of ours, hold a file open for moments.
constexpr int TRIES = 100;
constexpr DWORD PAUSE_MS = 10;

// The last error, should it come to that, stands afterwards.
template <class Attempt, class IsHeld>
bool with_patience(const Attempt& attempt, const IsHeld& is_held) {
  for (int left = TRIES; !attempt(); --left) {
    if (left == 1 || !is_held(GetLastError())) return false;
    Sleep(PAUSE_MS);
  }
  return true;
}

bool is_plain_file(const std::filesystem::path& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  return (attributes & (FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_READONLY)) == 0;
}

}  // namespace

const char* const NO_MACHINE_DIRECTORY = "ProgramData unavailable";

std::filesystem::path user_store_directory() {
  return own_directory(FOLDERID_RoamingAppData);
}

std::filesystem::path machine_store_directory() {
  const std::filesystem::path own = own_directory(FOLDERID_ProgramData);
  return own.empty() ? own : own / L"Host";
}

// Without a descriptor of the user's own the default has to do, as for files.
bool make_directory(const std::filesystem::path& directory) {
  if (directory.empty()) return false;
  SecurityAttributes attributes = user_directory_attributes();
  std::filesystem::path part = directory.root_path();
  for (const std::filesystem::path& name : directory.relative_path()) {
    part /= name;
    if (!names_directory(part) && !CreateDirectoryW(part.c_str(), attributes.get())) break;
  }
  return names_directory(directory);
}

bool list_directory(const std::filesystem::path& directory,
                    std::vector<std::filesystem::path>* entries) {
  entries->clear();
  WIN32_FIND_DATAW found;
  const HANDLE first = FindFirstFileW((directory / L"*").c_str(), &found);
  if (first == INVALID_HANDLE_VALUE) return GetLastError() == ERROR_FILE_NOT_FOUND;
  const Owned<NullableKind<HANDLE, FindClose>> listing(first);
  do {
    const std::wstring_view name = found.cFileName;
    if (name != L"." && name != L"..") entries->push_back(directory / name);
  } while (FindNextFileW(listing.get(), &found));
  return GetLastError() == ERROR_NO_MORE_FILES;
}

bool is_absent(const std::filesystem::path& path) {
  return GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES && is_missing(GetLastError());
}

Read read_file(const std::filesystem::path& path, std::size_t limit_bytes, std::string* bytes) {
  bytes->clear();
  const std::shared_lock lock(replacing());
  Handle file;
  const bool opened = with_patience(
      [&] {
        file = owned_file(CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                      OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        return static_cast<bool>(file);
      },
      [](DWORD error) { return error == ERROR_SHARING_VIOLATION; });
  if (!opened) return is_missing(GetLastError()) ? Read::Missing : Read::Failed;
  LARGE_INTEGER file_size;
  if (GetFileType(file.get()) != FILE_TYPE_DISK || !GetFileSizeEx(file.get(), &file_size))
    return Read::Failed;
  const auto size = static_cast<std::size_t>(file_size.QuadPart);
  if (size >= limit_bytes || size > MAXDWORD) return Read::Failed;
  bytes->resize(size);
  DWORD count = 0;
  if (ReadFile(file.get(), bytes->data(), static_cast<DWORD>(size), &count, nullptr) &&
      count == size)
    return Read::Ok;
  bytes->clear();
  return Read::Failed;
}

bool create_file(const std::filesystem::path& path, const void* data, std::size_t size) {
  const keystore::HostStoreScope scope = keystore::hostStoreScope();
  SecurityAttributes attributes = store_file_attributes(scope);
  if (!attributes && scope == keystore::Machine) return false;
  Handle file =
      owned_file(CreateFileW(path.c_str(), GENERIC_WRITE, 0, attributes.get(), CREATE_NEW,
                             FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr));
  if (!file) return false;
  const bool written = write_whole(file.get(), data, size);
  file.reset();
  if (!written) DeleteFileW(path.c_str());
  return written;
}

bool replace_file(const std::filesystem::path& from, const std::filesystem::path& to) {
  constexpr DWORD HOW = MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH;
  const std::unique_lock lock(replacing());
  return with_patience([&] { return MoveFileExW(from.c_str(), to.c_str(), HOW) != 0; },
                       // A name that is open is "access denied", as is one that can't be replaced.
                       [&](DWORD error) {
                         return error == ERROR_SHARING_VIOLATION ||
                                (error == ERROR_ACCESS_DENIED && is_plain_file(to));
                       });
}

bool remove_file(const std::filesystem::path& path) {
  return DeleteFileW(path.c_str()) != 0 || is_missing(GetLastError());
}

}  // namespace store_platform
