// Processes are held by handles: as long as one is open, the system gives the process's id to no
// other. What a process is, its token says; paths are judged by their security descriptors.
#include "control/security.h"

#include <aclapi.h>

#include <string>
#include <utility>

#include "control/security_platform.h"
#include "control/windows/path_trust.h"
#include "control/windows/security_attributes.h"
#include "control/windows/token.h"

namespace host_service {

namespace {

constexpr wchar_t PRIVATE_DIRECTORY[] = L"O:BAG:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)";

HANDLE handle_of(const Process& process) {
  return reinterpret_cast<HANDLE>(process.native_handle());
}

Handle token_of(const Process& process, DWORD access) {
  return process.alive() ? process_token(handle_of(process), access) : Handle();
}

enum class Component { Plain, Missing, Refused };

Component look_at(const std::wstring& path) {
  const DWORD attributes = GetFileAttributesW(path.c_str());
  if (attributes != INVALID_FILE_ATTRIBUTES)
    return (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0 ? Component::Refused : Component::Plain;
  const DWORD error = GetLastError();
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND ? Component::Missing
                                                                        : Component::Refused;
}

}  // namespace

// ---- Processes

// What stands for the process itself needs no giving back, and bears it.
Process Process::current() {
  return adopt(reinterpret_cast<std::intptr_t>(GetCurrentProcess()), GetCurrentProcessId());
}

// The system opens a process by any of the four ids that differ in the lowest two bits from its
// own.
Process Process::open(std::uint32_t id) {
  const HANDLE opened = OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION | SYNCHRONIZE, FALSE, id);
  if (opened == nullptr) return {};
  Process process = adopt(reinterpret_cast<std::intptr_t>(opened), id);
  return GetProcessId(opened) == id && process.alive() ? std::move(process) : Process();
}

bool Process::alive() const {
  return handle_ != 0 && WaitForSingleObject(handle_of(*this), 0) == WAIT_TIMEOUT;
}

bool system_process(const Process& process, std::uint32_t* session) {
  const Handle token = token_of(process, TOKEN_QUERY);
  if (!token) return false;
  const UserSid user(token.get());
  if (user.get() == nullptr || !IsWellKnownSid(user.get(), WinLocalSystemSid)) return false;
  DWORD number = 0, size = 0;
  if (!GetTokenInformation(token.get(), TokenSessionId, &number, sizeof number, &size))
    return false;
  if (session != nullptr) *session = number;
  return true;
}

bool elevated_admin_process(const Process& process) {
  const Handle token = token_of(process, TOKEN_QUERY | TOKEN_DUPLICATE);
  if (!token || !is_elevated(token.get())) return false;
  alignas(SID) unsigned char administrators[SECURITY_MAX_SID_SIZE];
  DWORD sid_size = sizeof administrators;
  Handle shown;
  BOOL member = FALSE;
  return CreateWellKnownSid(WinBuiltinAdministratorsSid, nullptr, administrators, &sid_size) &&
         DuplicateToken(token.get(), SecurityIdentification, shown.receive()) &&
         CheckTokenMembership(shown.get(), administrators, &member) && member != FALSE;
}

// ---- Paths

// A slash parts components as a backslash does, but for the drive.
bool no_reparse_components(const std::filesystem::path& path) {
  const std::wstring& name = path.native();
  if (name.size() < 3 || name[1] != L':' || name[2] != L'\\') return false;
  for (std::size_t at = name.find_first_of(L"\\/", 3); at != name.npos;
       at = name.find_first_of(L"\\/", at + 1)) {
    if (look_at(name.substr(0, at)) != Component::Plain) return false;
  }
  return look_at(name) != Component::Refused;
}

bool check_path(const std::filesystem::path& path, PathTest test) {
  LocalMemory<void> descriptor;
  return no_reparse_components(path) &&
         GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT,
                               OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, nullptr,
                               nullptr, nullptr, nullptr, descriptor.receive()) == ERROR_SUCCESS &&
         trusted(descriptor.get(), test);
}

namespace security_platform {

const std::intptr_t NO_PROCESS = 0;

void close_process(std::intptr_t handle) {
  CloseHandle(reinterpret_cast<HANDLE>(handle));
}

bool make_private_directory(const std::filesystem::path& path) {
  SecurityAttributes attributes(PRIVATE_DIRECTORY);
  return attributes && (CreateDirectoryW(path.c_str(), attributes.get()) ||
                        GetLastError() == ERROR_ALREADY_EXISTS);
}

}  // namespace security_platform

}  // namespace host_service
