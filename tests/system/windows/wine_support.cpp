#include "tests/system/windows/wine_support.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

using std::chrono::seconds;

namespace {

// The first time a system with Wine 10 is made, and a prefix.
constexpr seconds START{600};
constexpr seconds END{30};

// Says what makes this Windows, and waits for a line. The first program starts those of Wine's own
// that stay; started by another, they would keep that one's output open after its end.
constexpr char INSIDE[] =
    "wineserver -p; wine cmd /c rem </dev/null >/dev/null 2>&1 || exit; "
    "for name in PATH DISPLAY WINEPREFIX WINEARCH WINEDEBUG WINEDLLOVERRIDES PULSE_SERVER "
    "LUND_WINE_ROOT; do printf 'desk %s=%s\\n' $name \"${!name-}\"; done; echo desk ready; read -r";

bool in_path(const std::string& program) {
  std::istringstream folders(std::getenv("PATH"));
  for (std::string folder; std::getline(folders, folder, ':');)
    if (access((folder + "/" + program).c_str(), X_OK) == 0) return true;
  return false;
}

std::filesystem::path windows_bin() {
  const char* folder = std::getenv("LUND_WINDOWS_BIN");
  return folder ? std::filesystem::absolute(folder) : std::filesystem::path();
}

}  // namespace

std::string WineDesk::missing(Options options) {
  if (!in_path("wine") && !options.ten) return "Wine isn't installed";
  if (options.ten && geteuid() != 0) return "Wine 10's system is made and entered by root only";
  return "";
}

WineDesk::WineDesk(Options options) : options_(options) {
  if (windows_bin().empty()) {
    ADD_FAILURE() << "LUND_WINDOWS_BIN doesn't say where the Windows programs are";
    return;
  }
  std::vector<std::string> arguments = {std::string(LUND_SOURCE_DIR) + "/scripts/wine"};
  if (options.ten) arguments.emplace_back("--ten");
  if (options.sound) arguments.emplace_back("--sound");
  arguments.insert(arguments.end(), {"bash", "-c", INSIDE});
  script_ = std::make_unique<ChildProcess>(arguments, std::map<std::string, std::string>{},
                                           ChildProcess::Streams::Terminal);
  if (!script_->wait_for_output("desk ready", START)) {
    ADD_FAILURE() << "no Windows came up:\n" << script_->output();
    return;
  }
  std::istringstream lines(script_->output());
  for (std::string line; std::getline(lines, line);) {
    const std::size_t is = line.find('=');
    if (!line.starts_with("desk ") || is == std::string::npos) continue;
    line.erase(line.find_last_not_of('\r') + 1);
    environment_[line.substr(5, is - 5)] = line.substr(is + 1);
  }
}

WineDesk::~WineDesk() {
  if (!script_) return;
  script_->type("\n");
  if (!script_->wait(END)) ADD_FAILURE() << "this Windows doesn't end:\n" << script_->output();
}

std::filesystem::path WineDesk::drive_c() const {
  return std::filesystem::path(environment_.at("WINEPREFIX")) / "drive_c";
}

std::string WineDesk::windows_path(const std::filesystem::path& path) {
  std::string text = "Z:" + std::filesystem::absolute(path).string();
  for (char& c : text)
    if (c == '/') c = '\\';
  return text;
}

std::vector<std::string> WineDesk::command(const std::string& program,
                                           const std::vector<std::string>& arguments) const {
  std::vector<std::string> all;
  // Its places are mounted for the script's own processes only.
  if (options_.ten) {
    const std::string own = "/proc/" + std::to_string(script_->pid());
    all = {"nsenter", "--mount=" + own + "/ns/mnt", "--wd=" + own + "/cwd"};
  }
  all.emplace_back("wine");
  const std::filesystem::path built = windows_bin() / program;
  all.push_back(std::filesystem::exists(built) ? built.string() : program);
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

std::unique_ptr<ChildProcess> WineDesk::start(const std::string& program,
                                              const std::vector<std::string>& arguments,
                                              const std::map<std::string, std::string>& more,
                                              ChildProcess::Streams streams) const {
  std::map<std::string, std::string> environment = environment_;
  for (const auto& [name, value] : more) environment[name] = value;
  return std::make_unique<ChildProcess>(command(program, arguments), environment, streams);
}

RunResult WineDesk::run(const std::string& program, const std::vector<std::string>& arguments,
                        std::chrono::milliseconds deadline,
                        const std::map<std::string, std::string>& more) const {
  const auto child = start(program, arguments, more);
  const auto status = child->wait(deadline);
  EXPECT_TRUE(status.has_value()) << program << " did not end; it said:\n" << child->output();
  return {status.value_or(-1), child->output()};
}
