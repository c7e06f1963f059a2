#include "apps/service/linux/session_environment.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <sstream>

#include "control/linux/descriptor.h"
#include "control/linux/display_session.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t ENVIRON_MAX = 131'072;  // bytes; more than any desktop passes on
constexpr std::size_t COOKIES_MAX = 65'536;   // bytes

std::string content(const fs::path& file, std::size_t limit) {
  std::ifstream in(file, std::ios::binary);
  std::string text(limit, '\0');
  in.read(text.data(), static_cast<std::streamsize>(limit));
  text.resize(static_cast<std::size_t>(std::max<std::streamsize>(in.gcount(), 0)));
  return text;
}

Environment environment_of(const fs::path& process) {
  std::istringstream variables(content(process / "environ", ENVIRON_MAX));
  Environment environment;
  for (std::string variable; std::getline(variables, variable, '\0');) {
    const std::size_t equals = variable.find('=');
    if (equals != variable.npos)
      environment[variable.substr(0, equals)] = variable.substr(equals + 1);
  }
  return environment;
}

bool belongs_to(const fs::path& process, const LoginSession& session) {
  struct stat directory {};
  if (stat(process.c_str(), &directory) != 0 || directory.st_uid != session.uid) return false;
  std::istringstream groups(content(process / "cgroup", ENVIRON_MAX));
  const std::string scope = "/session-" + session.id + ".scope";
  for (std::string group; std::getline(groups, group);) {
    const std::size_t at = group.find(scope);
    if (at != group.npos && (at + scope.size() == group.size() || group[at + scope.size()] == '/'))
      return true;
  }
  return false;
}

std::string value_of(const Environment& environment, const std::string& name) {
  const auto found = environment.find(name);
  return found != environment.end() ? found->second : std::string();
}

// The user's own regular file, through whatever links, by the descriptor that is then read: what
// the user may read anyhow.
std::optional<std::string> users_file(const fs::path& path, uid_t uid) {
  if (!path.is_absolute()) return std::nullopt;
  const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
  struct stat status {};
  if (file.get() < 0 || fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) ||
      status.st_uid != uid)
    return std::nullopt;
  std::string bytes(COOKIES_MAX, '\0');
  const ssize_t size = read(file.get(), bytes.data(), bytes.size());
  if (size <= 0) return std::nullopt;
  bytes.resize(static_cast<std::size_t>(size));
  return bytes;
}

// Puts a copy of the user's file where no user can exchange it, and names that.
bool take_copy(const fs::path& from, uid_t uid, const fs::path& to, std::string* name) {
  const std::optional<std::string> bytes = users_file(from, uid);
  if (!bytes) return false;
  const Descriptor copy(
      open(to.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
  if (copy.get() < 0 ||
      write(copy.get(), bytes->data(), bytes->size()) != static_cast<ssize_t>(bytes->size()))
    return false;
  *name = to.string();
  return true;
}

bool is_users_directory(const fs::path& path, uid_t uid) {
  struct stat status {};
  return path.is_absolute() && lstat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode) &&
         status.st_uid == uid;
}

}  // namespace

std::uint32_t local_session_number(const std::string& display) {
  return display.starts_with(':') ? host_service::session_of_display(display) : 0;
}

std::vector<Environment> session_environments(const LoginSession& session, const fs::path& proc) {
  std::vector<std::pair<int, fs::path>> processes;
  std::error_code ignored;
  for (const fs::directory_entry& entry : fs::directory_iterator(proc, ignored)) {
    const std::string name = entry.path().filename();
    int id = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
    if (error == std::errc() && end == name.data() + name.size() &&
        belongs_to(entry.path(), session))
      processes.emplace_back(id, entry.path());
  }
  std::ranges::sort(processes);
  std::vector<Environment> environments;
  environments.reserve(processes.size());
  for (const auto& [id, path] : processes) environments.push_back(environment_of(path));
  return environments;
}

std::optional<Environment> worker_environment(const LoginSession& session,
                                              const std::vector<Environment>& found,
                                              const SessionPlaces& places) {
  // One of the session's processes on the session's own display: not on another that it may have
  // opened, say inside a window.
  const auto told = std::ranges::find_if(found, [&session](const Environment& environment) {
    const std::string display = value_of(environment, "DISPLAY");
    return local_session_number(display) != 0 &&
           (local_session_number(session.display) == 0 ||
            local_session_number(session.display) == local_session_number(display));
  });
  const bool logind_told = local_session_number(session.display) != 0;
  if (told == found.end() && !logind_told) return std::nullopt;
  const Environment none;
  const Environment& process = told != found.end() ? *told : none;

  Environment worker;
  worker["DISPLAY"] = told != found.end() ? value_of(process, "DISPLAY") : session.display;
  for (const fs::path& cookies :
       {fs::path(value_of(process, "XAUTHORITY")), places.runtime / "gdm" / "Xauthority",
        places.home / ".Xauthority"}) {
    std::string copy;
    if (!take_copy(cookies, session.uid, places.copies / "session-xauthority", &copy)) continue;
    worker["XAUTHORITY"] = copy;
    break;
  }
  fs::path runtime = value_of(process, "XDG_RUNTIME_DIR");
  if (!is_users_directory(runtime, session.uid)) runtime = places.runtime;
  if (is_users_directory(runtime, session.uid)) worker["XDG_RUNTIME_DIR"] = runtime.string();

  const std::string server = value_of(process, "PULSE_SERVER");
  const fs::path usual = runtime / "pulse" / "native";
  if (server.starts_with("unix:/"))
    worker["PULSE_SERVER"] = server;
  else if (std::error_code ignored; fs::is_socket(usual, ignored))
    worker["PULSE_SERVER"] = "unix:" + usual.string();
  std::string cookie;
  if (take_copy(places.home / ".config" / "pulse" / "cookie", session.uid,
                places.copies / "session-pulse-cookie", &cookie))
    worker["PULSE_COOKIE"] = cookie;
  return worker;
}
