#include "control/windows/handles.h"
// clang-format off
#include <aclapi.h>
#include <iphlpapi.h>
// clang-format on

#include <algorithm>
#include <cstdlib>
#include <vector>

#include "apps/lunderhaze/doctor_probe.h"
#include "control/windows/path_trust.h"
#include "control/windows/token.h"
#include "control/windows/wide_text.h"

namespace {

constexpr ULONG TABLE_FIRST_BYTES = 16'384;
constexpr int TABLE_TRIES = 3;  // it may grow between two calls

constexpr ACCESS_MASK WRITE_RIGHTS = FILE_WRITE_DATA | FILE_APPEND_DATA | FILE_WRITE_EA |
                                     FILE_DELETE_CHILD | DELETE | WRITE_DAC | WRITE_OWNER |
                                     GENERIC_WRITE | GENERIC_ALL;
constexpr ACCESS_MASK READ_RIGHTS = FILE_READ_DATA | GENERIC_READ;
// Where reading is as bad as writing.
constexpr const char* SECRETS[] = {"identity", "pairing_password", "relays"};

// ---- Sockets

// The process that has the port, by the system's table of one family; 0 without one.
template <typename Table>
DWORD process_on_port(ULONG family, std::uint16_t port) {
  std::vector<std::max_align_t> buffer;
  ULONG bytes = TABLE_FIRST_BYTES;
  for (int i = 0; i < TABLE_TRIES; ++i) {
    buffer.resize(bytes / sizeof(std::max_align_t) + 1);
    const DWORD result =
        GetExtendedUdpTable(buffer.data(), &bytes, FALSE, family, UDP_TABLE_OWNER_PID, 0);
    if (result == ERROR_INSUFFICIENT_BUFFER) continue;
    if (result != NO_ERROR) break;
    const auto* table = reinterpret_cast<const Table*>(buffer.data());
    const auto* end = table->table + table->dwNumEntries;
    // The port is in network byte order, in the lower half.
    const auto* found = std::find_if(table->table, end, [port](const auto& row) {
      return ntohs(static_cast<u_short>(row.dwLocalPort)) == port;
    });
    return found == end ? 0 : found->dwOwningPid;
  }
  return 0;
}

std::string program_of(HANDLE process) {
  wchar_t path[MAX_PATH];
  DWORD size = MAX_PATH;
  if (!QueryFullProcessImageNameW(process, 0, path, &size)) return {};
  return to_utf8(std::filesystem::path(path, path + size).filename().native());
}

std::string user_name(PSID user) {
  wchar_t name[256];
  wchar_t domain[256];
  DWORD name_size = 256;
  DWORD domain_size = 256;
  SID_NAME_USE use;
  if (!LookupAccountSidW(nullptr, user, name, &name_size, domain, &domain_size, &use)) return {};
  return to_utf8(name);
}

std::string user_of(HANDLE process) {
  const Handle token = process_token(process, TOKEN_QUERY);
  if (!token) return {};
  const UserSid user(token.get());
  return user.get() != nullptr ? user_name(user.get()) : std::string();
}

// ---- Files

Handle opened(const std::filesystem::path& path, DWORD access) {
  return owned_file(CreateFileW(path.c_str(), access,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
}

// What a file's or directory's descriptor says, before the user that this process runs as.
class Access {
 public:
  Access(const std::filesystem::path& path, PSID user) : user_(user) {
    if (GetNamedSecurityInfoW(path.c_str(), SE_FILE_OBJECT,
                              OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION, &owner_,
                              nullptr, &list_, nullptr, descriptor_.receive()) != ERROR_SUCCESS)
      descriptor_.reset();
  }

  bool foreign() const { return descriptor_ && owner_ != nullptr && !trusts(owner_); }

  // Somebody else has one of the rights. Without a list everybody has all.
  bool gives_others(ACCESS_MASK rights) const {
    if (!descriptor_) return false;
    if (list_ == nullptr) return true;
    for (DWORD i = 0; i < list_->AceCount; ++i) {
      void* entry = nullptr;
      if (GetAce(list_, i, &entry) && gives_others(*static_cast<ACE_HEADER*>(entry), rights))
        return true;
    }
    return false;
  }

 private:
  bool trusts(PSID sid) const {
    return EqualSid(sid, user_) || host_service::is_system_or_administrators(sid) ||
           IsWellKnownSid(sid, WinCreatorOwnerRightsSid);
  }

  bool gives_others(ACE_HEADER& entry, ACCESS_MASK rights) const {
    if (entry.AceType != ACCESS_ALLOWED_ACE_TYPE || (entry.AceFlags & INHERIT_ONLY_ACE) != 0)
      return false;
    auto& allowed = reinterpret_cast<ACCESS_ALLOWED_ACE&>(entry);
    return (allowed.Mask & rights) != 0 && !trusts(&allowed.SidStart);
  }

  PSID user_;
  PSID owner_ = nullptr;
  PACL list_ = nullptr;
  LocalMemory<void> descriptor_;
};

}  // namespace

namespace doctor_platform {

const char* const DISPLAY_SERVER = "the desktop";
const char* const SOUND_ADVICE =
    "see that the service Windows Audio runs (services.msc), and that there is an output device";

std::string display_server() {
  return DISPLAY_SERVER;
}

std::string display_advice() {
  return "run this in the desktop's own session, with a monitor switched on";
}

std::optional<PortHolder> port_holder(std::uint16_t udp_port) {
  DWORD process = process_on_port<MIB_UDPTABLE_OWNER_PID>(AF_INET, udp_port);
  if (process == 0) process = process_on_port<MIB_UDP6TABLE_OWNER_PID>(AF_INET6, udp_port);
  if (process == 0) return std::nullopt;
  PortHolder holder;
  holder.process = process;
  if (const Handle handle{OpenProcess(PROCESS_QUERY_LIMITED_INFORMATION, FALSE, process)}) {
    holder.program = program_of(handle.get());
    holder.user = user_of(handle.get());
  }
  return holder;
}

Ownership ownership(const std::filesystem::path& directory) {
  Ownership owned;
  owned.writable = static_cast<bool>(opened(directory, FILE_ADD_FILE | FILE_DELETE_CHILD));
  const Handle token = process_token(GetCurrentProcess(), TOKEN_QUERY);
  const UserSid user(token.get());
  if (user.get() == nullptr) return owned;
  const Access access(directory, user.get());
  owned.foreign = access.foreign();
  if (access.gives_others(WRITE_RIGHTS)) owned.exposed.emplace_back("the directory");
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = to_utf8(entry->path().filename().native());
    const bool secret = std::ranges::find(SECRETS, name) != std::end(SECRETS);
    std::error_code gone;
    if (entry->is_regular_file(gone) &&
        Access(entry->path(), user.get())
            .gives_others(secret ? WRITE_RIGHTS | READ_RIGHTS : WRITE_RIGHTS))
      owned.exposed.push_back(name);
  }
  std::ranges::sort(owned.exposed);
  return owned;
}

StoreAdvice store_advice(const std::filesystem::path& directory) {
  return {"log in as a user who has a profile",
          "icacls \"" + to_utf8(directory.native()) + "\" /reset /T",
          "put back a copy of it that this user made on this computer, or pair the devices again"};
}

bool may_be_made(const std::filesystem::path& directory) {
  for (std::filesystem::path above = directory.parent_path();; above = above.parent_path()) {
    std::error_code error;
    const std::filesystem::file_status status = std::filesystem::status(above, error);
    if (status.type() != std::filesystem::file_type::not_found)
      return std::filesystem::is_directory(status) &&
             static_cast<bool>(opened(above, FILE_ADD_SUBDIRECTORY));
    if (above == above.parent_path()) return false;
  }
}

// ExitProcess would ask each DLL to end, the graphics driver's among them.
void end_at_once(int status) {
  TerminateProcess(GetCurrentProcess(), static_cast<UINT>(status));
  std::abort();
}

}  // namespace doctor_platform
