#include "tests/support/linux/machine_lab.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "tests/support/linux/namespaces.h"

namespace {

namespace fs = std::filesystem;

constexpr std::chrono::seconds DEADLINE{20};
constexpr char READY[] = "the lab is ready";
// A mount over /run is the lab's own only where mounts don't propagate.
const std::vector<std::string> HOLDER = {
    "setpriv",
    "--pdeathsig",
    "KILL",
    "unshare",
    "--mount",
    "--net",
    "--propagation",
    "private",
    "sh",
    "-c",
    "mount -n -t tmpfs -o mode=755 tmpfs /run && mount -n -t tmpfs -o mode=755 tmpfs /var/lib && "
    "ip link set lo up && echo the lab is ready && exec sleep infinity"};

std::string refusal_of_this_computer() {
  if (geteuid() != 0) return "a machine's own mounts and network need root";
  ChildProcess holder(HOLDER);
  if (holder.wait_for_output(READY, DEADLINE)) return {};
  return "no mount and network namespaces here: " + holder.output();
}

std::string link_target(const std::string& link) {
  std::error_code ignored;  // a process that has ended meanwhile, or has no program, has none
  return fs::read_symlink(link, ignored).string();
}

}  // namespace

const std::string& MachineLab::missing() {
  static const std::string reason = refusal_of_this_computer();
  return reason;
}

MachineLab::MachineLab() : holder_(HOLDER) {
  EXPECT_TRUE(holder_.wait_for_output(READY, DEADLINE)) << holder_.output();
}

MachineLab::~MachineLab() {
  // A program may be starting another one just now.
  const auto until = std::chrono::steady_clock::now() + DEADLINE;
  for (std::vector<pid_t> left = processes(); !left.empty(); left = processes()) {
    for (const pid_t pid : left) kill(pid, SIGKILL);
    if (std::chrono::steady_clock::now() > until) {
      ADD_FAILURE() << "process " << left.front() << " outlives its lab";
      return;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

std::vector<std::string> MachineLab::inside(const std::vector<std::string>& arguments) const {
  std::vector<std::string> all = {"setpriv", "--pdeathsig", "KILL",
                                  "nsenter", "--target",    std::to_string(holder_.pid()),
                                  "--mount", "--net",       "--"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

RunResult MachineLab::run(const std::vector<std::string>& arguments,
                          const std::map<std::string, std::string>& environment) const {
  return run_program(inside(arguments), environment);
}

void MachineLab::call(const std::function<void()>& function) const {
  const std::string namespaces = process_directory() + "/ns/";
  call_inside({{CLONE_NEWNET, namespaces + "net"}, {CLONE_NEWNS, namespaces + "mnt"}}, function);
}

fs::path MachineLab::path(const fs::path& inside) const {
  return fs::path(process_directory()) / "root" / inside.relative_path();
}

std::vector<pid_t> MachineLab::processes(const std::string& program) const {
  const std::string own = link_target(process_directory() + "/ns/mnt");
  std::vector<pid_t> found;
  if (own.empty()) return found;
  for (const auto& entry : fs::directory_iterator("/proc")) {
    const pid_t pid = std::atoi(entry.path().filename().c_str());
    if (pid <= 0 || pid == holder_.pid()) continue;
    // What has ended and isn't reaped yet has no namespaces any more.
    if (link_target(entry.path().string() + "/ns/mnt") != own) continue;
    const fs::path file = link_target(entry.path().string() + "/exe");
    if (program.empty() || file.filename() == program) found.push_back(pid);
  }
  std::ranges::sort(found);
  return found;
}
