#include "apps/lunderhaze/linux/doctor_platform.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>

#include "apps/lunderhaze/doctor_probe.h"

namespace {

constexpr std::size_t PASSWD_BYTES = 16'384;
constexpr mode_t OTHERS_WRITE = S_IWGRP | S_IWOTH;
constexpr mode_t OTHERS = S_IRWXG | S_IRWXO;
// Where reading is as bad as writing.
constexpr const char* SECRETS[] = {"identity", "pairing_password", "relays", "store.key"};

std::string variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

SessionVariables session_variables() {
  return {variable("DISPLAY"), variable("WAYLAND_DISPLAY"), variable("XDG_SESSION_TYPE")};
}

// Files of /proc have no size.
std::string content(const std::filesystem::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::string user_name(std::uint32_t user) {
  std::vector<char> buffer(PASSWD_BYTES);
  passwd entry{};
  passwd* found = nullptr;
  const int error = getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
  return error == 0 && found != nullptr ? found->pw_name : std::to_string(user);
}

// Of processes that may be looked into: this user's, or all of them for root.
bool has_socket(const std::filesystem::path& process, std::uint64_t inode) {
  const std::string wanted = "socket:[" + std::to_string(inode) + "]";
  std::error_code error;
  for (std::filesystem::directory_iterator entry(process / "fd", error), end;
       !error && entry != end; entry.increment(error)) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry->path(), gone) == wanted) return true;
  }
  return false;
}

void find_process(std::uint64_t inode, PortHolder* holder) {
  std::error_code error;
  for (std::filesystem::directory_iterator entry("/proc", error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    std::uint64_t process = 0;
    const auto [stop, parsed] = std::from_chars(name.data(), name.data() + name.size(), process);
    if (parsed != std::errc() || *stop != 0 || !has_socket(entry->path(), inode)) continue;
    holder->process = process;
    holder->program = content(entry->path() / "comm");
    while (holder->program.ends_with('\n')) holder->program.pop_back();
    return;
  }
}

}  // namespace

std::string display_advice_for(const SessionVariables& variables) {
  if (!variables.wayland_display.empty() || variables.session_type == "wayland")
    return "the session is " +
           (variables.wayland_display.empty() ? "a Wayland one" : variables.wayland_display) +
           " of a Wayland compositor: choose an X11 (Xorg) session when logging in";
  if (variables.display.empty())
    return "run this in the desktop's own session, or name it: DISPLAY=:0 lunderhaze doctor";
  return "see that this X server runs and lets this user in (XAUTHORITY)";
}

// "sl: LOCAL:PORT REMOTE:PORT st tx:rx tr:when retrnsmt uid timeout inode ...", the port in
// hexadecimal digits.
std::vector<BoundSocket> sockets_on_port(const std::string& table, std::uint16_t port) {
  std::vector<BoundSocket> sockets;
  std::istringstream lines(table);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string number, local, remote, state, queues, timer, retransmitted, timeout;
    BoundSocket socket;
    if (!(fields >> number >> local >> remote >> state >> queues >> timer >> retransmitted >>
          socket.user >> timeout >> socket.inode))
      continue;
    const char* const digits = local.data() + std::min(local.rfind(':'), local.size() - 1) + 1;
    std::uint16_t bound = 0;
    const auto [stop, error] = std::from_chars(digits, local.data() + local.size(), bound, 16);
    if (error == std::errc() && *stop == 0 && bound == port) sockets.push_back(socket);
  }
  return sockets;
}

namespace doctor_platform {

const char* const DISPLAY_SERVER = "the X server";
const char* const SOUND_ADVICE =
    "start it in the desktop's session: systemctl --user start pipewire-pulse, or pulseaudio "
    "--start";

std::string display_server() {
  return std::string(DISPLAY_SERVER) + " " + variable("DISPLAY");
}

std::string display_advice() {
  return display_advice_for(session_variables());
}

std::optional<PortHolder> port_holder(std::uint16_t udp_port) {
  for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
    for (const BoundSocket& socket : sockets_on_port(content(table), udp_port)) {
      PortHolder holder;
      holder.user = user_name(socket.user);
      find_process(socket.inode, &holder);
      return holder;
    }
  }
  return std::nullopt;
}

Ownership ownership(const std::filesystem::path& directory) {
  Ownership owned;
  // As the effective user; a disk that is mounted read-only says no as well.
  owned.writable = faccessat(AT_FDCWD, directory.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
  struct stat status {};
  if (stat(directory.c_str(), &status) == 0) {
    owned.foreign = status.st_uid != geteuid();
    if ((status.st_mode & OTHERS_WRITE) != 0) owned.exposed.emplace_back("the directory");
  }
  std::error_code error;
  for (std::filesystem::directory_iterator entry(directory, error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string name = entry->path().filename();
    const bool secret = std::ranges::find(SECRETS, name) != std::end(SECRETS);
    if (lstat(entry->path().c_str(), &status) == 0 && S_ISREG(status.st_mode) &&
        (status.st_mode & (secret ? OTHERS : OTHERS_WRITE)) != 0)
      owned.exposed.push_back(name);
  }
  std::ranges::sort(owned.exposed);
  return owned;
}

StoreAdvice store_advice(const std::filesystem::path& directory) {
  return {"set HOME", "chmod -R go= " + directory.string(),
          "put back a copy of it, together with store.key, or pair the devices again"};
}

bool may_be_made(const std::filesystem::path& directory) {
  for (std::filesystem::path above = directory.parent_path();; above = above.parent_path()) {
    struct stat status {};
    if (stat(above.c_str(), &status) == 0)
      return S_ISDIR(status.st_mode) &&
             faccessat(AT_FDCWD, above.c_str(), W_OK | X_OK, AT_EACCESS) == 0;
    if (above == above.parent_path()) return false;
  }
}

void end_at_once(int status) {
  std::_Exit(status);
}

}  // namespace doctor_platform
