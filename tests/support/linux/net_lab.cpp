#include "tests/support/linux/net_lab.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/support/linux/namespaces.h"

namespace {

namespace fs = std::filesystem;

constexpr char NAMESPACES[] = "/run/netns";
constexpr char NAMESPACE_FILES[] = "/etc/netns";  // ip-netns(8) mounts what is in there over /etc
constexpr char LAB[] = "lunderhaze-lab-";
constexpr char INTERNET[] = "internet";
constexpr char BRIDGE[] = "bridge";
constexpr char WAN[] = "wan";
constexpr char PUBLIC_DEVICE[] = "eth0";
constexpr const char* PUBLIC_NETWORKS[] = {"198.51.100.0/24", "203.0.113.0/24"};  // RFC 5737
constexpr std::chrono::seconds DEADLINE{20};

bool is_program(const std::string& name) {
  std::istringstream path(std::getenv("PATH") ? std::getenv("PATH") : "");
  for (std::string folder; std::getline(path, folder, ':');)
    if (access((folder + "/" + name).c_str(), X_OK) == 0) return true;
  return false;
}

RunResult run_quietly(const std::vector<std::string>& arguments) {
  return run_program(arguments, {}, DEADLINE);
}

void remove_namespace(const std::string& name) {
  std::istringstream pids(run_quietly({"ip", "netns", "pids", name}).output);
  for (pid_t pid = 0; pids >> pid;) kill(pid, SIGKILL);
  run_quietly({"ip", "netns", "delete", name});
  std::error_code ignored;
  fs::remove_all(fs::path(NAMESPACE_FILES) / name, ignored);
}

std::vector<std::string> names_in(const char* directory) {
  std::vector<std::string> names;
  std::error_code error;
  for (const auto& entry : fs::directory_iterator(directory, error))
    names.push_back(entry.path().filename().string());
  return names;
}

// What a run left behind whose process has ended.
void remove_leftovers() {
  std::vector<std::string> names = names_in(NAMESPACES);
  for (std::string& name : names_in(NAMESPACE_FILES)) names.push_back(std::move(name));
  for (const std::string& name : names) {
    if (name.rfind(LAB, 0) != 0) continue;
    const pid_t pid = std::atoi(name.c_str() + sizeof LAB - 1);
    if (pid > 0 && kill(pid, 0) != 0 && errno == ESRCH) remove_namespace(name);
  }
}

// What can't be known without trying: namespaces, their parameters, address translation.
std::string refusal_of_this_computer() {
  if (geteuid() != 0) return "network namespaces need root";
  for (const char* program : {"ip", "nft", "dnsmasq", "conntrack"})
    if (!is_program(program)) return std::string("there is no program ") + program + " here";
  const std::string name = NetLab::prefix_of(getpid()) + "trial";
  const RunResult added = run_quietly({"ip", "netns", "add", name});
  if (added.status != 0) return "no network namespaces here: " + added.output;
  const RunResult forwards = run_quietly(
      {"ip", "netns", "exec", name, "sh", "-c", "echo 1 >/proc/sys/net/ipv4/ip_forward"});
  const RunResult bridges =
      run_quietly({"ip", "-n", name, "link", "add", BRIDGE, "type", "bridge"});
  const RunResult translates = run_quietly(
      {"ip", "netns", "exec", name, "nft",
       "table ip t { chain c { type nat hook postrouting priority 100; masquerade random; }; }"});
  remove_namespace(name);
  for (const RunResult& result : {forwards, bridges, translates})
    if (result.status != 0) return "this kernel lacks what routers need: " + result.output;
  return {};
}

}  // namespace

const char* nat_name(Nat kind) {
  switch (kind) {
    case Nat::FULL_CONE:
      return "full cone";
    case Nat::PORT_RESTRICTED:
      return "port restricted";
    case Nat::SYMMETRIC:
      return "symmetric";
  }
  return "?";
}

const std::string& NetLab::missing() {
  static const std::string reason = refusal_of_this_computer();
  return reason;
}

std::string NetLab::prefix_of(pid_t pid) {
  return LAB + std::to_string(pid) + "-";
}

NetLab::NetLab() {
  static int labs = 0;
  prefix_ = prefix_of(getpid()) + std::to_string(++labs) + "-";
  std::string name = (fs::temp_directory_path() / "lunderhaze-lab-XXXXXX").string();
  EXPECT_NE(mkdtemp(name.data()), nullptr);
  directory_ = name;
  remove_leftovers();
  add_node(INTERNET);
  command({"ip", "-n", namespace_of(INTERNET), "link", "add", BRIDGE, "type", "bridge"});
  set_link(INTERNET, BRIDGE, true);
}

NetLab::~NetLab() {
  name_server_.reset();
  for (const std::string& node : nodes_) remove_namespace(namespace_of(node));
  std::error_code ignored;
  fs::remove_all(directory_, ignored);
}

void NetLab::add_node(const std::string& node) {
  nodes_.push_back(node);
  command({"ip", "netns", "add", namespace_of(node)});
  set_parameter(node, "all/rp_filter", "0");
  set_parameter(node, "default/rp_filter", "0");
  set_link(node, "lo", true);
}

void NetLab::add_internet_host(const std::string& node, const std::string& address) {
  add_node(node);
  public_hosts_[node] = address;
  plug(node, PUBLIC_DEVICE, INTERNET, address);
}

void NetLab::add_site(const std::string& site, Nat kind, const std::string& public_address,
                      const std::string& lan) {
  add_node(site);
  sites_[site] = {kind, lan, {}};
  command({"ip", "-n", namespace_of(site), "link", "add", BRIDGE, "type", "bridge"});
  command({"ip", "-n", namespace_of(site), "address", "add", lan + "/24", "dev", BRIDGE});
  set_link(site, BRIDGE, true);
  plug(site, WAN, INTERNET, public_address);
  set_parameter(site, "all/forwarding", "1");
}

void NetLab::add_site_host(const std::string& node, const std::string& site,
                           const std::string& address) {
  add_node(node);
  Site& there = sites_.at(site);
  gateways_[node] = {"eth0", there.lan};
  if (there.first_host.empty()) {
    there.first_host = address;
    translate(site);
  }
  join_lan(node, site, "eth0", address);
}

void NetLab::join_lan(const std::string& node, const std::string& site, const std::string& device,
                      const std::string& address) {
  plug(node, device, site, address);
}

void NetLab::plug(const std::string& node, const std::string& device,
                  const std::string& bridge_node, const std::string& address) {
  const std::string port = "port" + std::to_string(++cables_);
  command({"ip", "-n", namespace_of(node), "link", "add", device, "type", "veth", "peer", "name",
           port, "netns", namespace_of(bridge_node)});
  command({"ip", "-n", namespace_of(bridge_node), "link", "set", port, "master", BRIDGE, "up"});
  command({"ip", "-n", namespace_of(node), "address", "add", address + "/24", "dev", device});
  set_link(node, device, true);
}

void NetLab::set_link(const std::string& node, const std::string& device, bool up) {
  command({"ip", "-n", namespace_of(node), "link", "set", device, up ? "up" : "down"});
  if (up) add_routes(node, device);  // they went with the device
}

void NetLab::change_address(const std::string& node, const std::string& device,
                            const std::string& address) {
  command({"ip", "-n", namespace_of(node), "address", "flush", "dev", device});
  command({"ip", "-n", namespace_of(node), "address", "add", address + "/24", "dev", device});
  if (public_hosts_.contains(node)) public_hosts_[node] = address;
  add_routes(node, device);
}

void NetLab::add_routes(const std::string& node, const std::string& device) const {
  const auto gateway = gateways_.find(node);
  if (gateway != gateways_.end() && gateway->second.device == device) {
    command({"ip", "-n", namespace_of(node), "route", "replace", "default", "via",
             gateway->second.address});
  } else if (device == WAN || (device == PUBLIC_DEVICE && public_hosts_.contains(node))) {
    for (const char* network : PUBLIC_NETWORKS)
      command({"ip", "-n", namespace_of(node), "route", "replace", network, "dev", device});
  }
}

void NetLab::translate(const std::string& site) const {
  const auto& [kind, lan, first_host] = sites_.at(site);
  std::string inbound;
  std::string outbound = "oifname wan masquerade\n";
  if (kind == Nat::FULL_CONE) inbound = "iifname wan meta l4proto udp dnat to " + first_host + "\n";
  if (kind == Nat::SYMMETRIC) {
    // A range of ports for each public network, so that what a host in one of them saw is never,
    // by luck, what is drawn for a host in the other.
    outbound =
        "oifname wan ip daddr 203.0.113.0/24 meta l4proto udp "
        "masquerade to :10000-29999 fully-random\n"
        "oifname wan meta l4proto udp masquerade to :30000-49999 fully-random\n";
  }
  // What nobody asked for is dropped before it becomes a connection of the router's own: that
  // would hold the port, and a host that punches from it a moment later would get another one.
  replace_table(site, "translate",
                "counter turned_away { }\n"
                "chain prerouting { type nat hook prerouting priority -100\n" +
                    inbound +
                    "}\n"
                    "chain postrouting { type nat hook postrouting priority 100\n" +
                    outbound +
                    "}\n"
                    "chain input { type filter hook input priority 0\n"
                    "iifname wan counter name turned_away drop\n}\n");
}

void NetLab::forget_mappings(const std::string& site) {
  command({"ip", "netns", "exec", namespace_of(site), "conntrack", "-F"});
}

void NetLab::change_public_address(const std::string& site, const std::string& address) {
  change_address(site, WAN, address);
  forget_mappings(site);
}

void NetLab::block(const std::string& node, const std::string& address) {
  blocked_[node].push_back(address);
  std::string rules = "chain incoming { type filter hook prerouting priority -300\n";
  for (const std::string& other : blocked_[node]) rules += "ip saddr " + other + " drop\n";
  rules += "}\nchain outgoing { type filter hook postrouting priority 300\n";
  for (const std::string& other : blocked_[node]) rules += "ip daddr " + other + " drop\n";
  replace_table(node, "block", rules + "}\n");
}

void NetLab::unblock(const std::string& node) {
  if (blocked_.erase(node) > 0) replace_table(node, "block", "");
}

int NetLab::turned_away(const std::string& site) const {
  std::istringstream words(run(site, {"nft", "list", "counter", "ip", "translate", "turned_away"}));
  for (std::string word; words >> word;) {
    int packets = 0;
    if (word == "packets" && words >> packets) return packets;
  }
  ADD_FAILURE() << "no counter at " << site;
  return -1;
}

void NetLab::replace_table(const std::string& node, const std::string& table,
                           const std::string& rules) const {
  const std::string name = "table ip " + table;
  const std::string path = directory_ + "/rules";
  // Declared, so that there is something to delete; all of it happens at once.
  std::ofstream(path) << name << "\ndelete " << name << "\n" << name << " {\n" << rules << "}\n";
  command({"ip", "netns", "exec", namespace_of(node), "nft", "-f", path});
}

void NetLab::serve_names(const std::string& node) {
  const std::string& address = public_hosts_.at(node);
  for (const std::string& other : nodes_) {
    const fs::path files = fs::path(NAMESPACE_FILES) / namespace_of(other);
    fs::create_directories(files);
    std::ofstream(files / "resolv.conf") << "nameserver " << address << "\n";
    // Whatever this computer resolves names by otherwise is not in the lab.
    std::ofstream(files / "nsswitch.conf") << "hosts: files dns\n";
  }
  write_names();
  name_server_ = std::make_unique<ChildProcess>(
      inside(node, {"dnsmasq", "--no-daemon", "--conf-file=/dev/null", "--user=root", "--no-resolv",
                    "--no-hosts", "--local=/test/", "--addn-hosts=" + directory_ + "/names"}));
  EXPECT_TRUE(name_server_->wait_for_output("read " + directory_ + "/names", DEADLINE))
      << name_server_->output();
}

void NetLab::write_names() const {
  std::ofstream file(directory_ + "/names");
  for (const auto& [name, address] : names_) file << address << " " << name << "\n";
}

void NetLab::set_name(const std::string& name, const std::string& address) {
  if (address.empty()) {
    names_.erase(name);
  } else {
    names_[name] = address;
  }
  write_names();
  if (!name_server_) return;
  const std::size_t said = name_server_->output().size();
  name_server_->signal(SIGHUP);
  EXPECT_TRUE(name_server_->wait_for_output("read " + directory_ + "/names", DEADLINE, said))
      << name_server_->output();
}

std::vector<std::string> NetLab::inside(const std::string& node,
                                        const std::vector<std::string>& arguments) const {
  std::vector<std::string> all = {"ip", "netns", "exec", namespace_of(node)};
  all.insert(all.end(), arguments.begin(), arguments.end());
  return all;
}

std::string NetLab::run(const std::string& node, const std::vector<std::string>& arguments) const {
  const RunResult result = run_quietly(inside(node, arguments));
  EXPECT_EQ(result.status, 0) << arguments[0] << " at " << node << ": " << result.output;
  return result.output;
}

void NetLab::call(const std::string& node, const std::function<void()>& function) const {
  call_inside({{CLONE_NEWNET, std::string(NAMESPACES) + "/" + namespace_of(node)}}, function);
}

void NetLab::set_parameter(const std::string& node, const std::string& name,
                           const char* value) const {
  call(node, [&] {
    std::ofstream file("/proc/sys/net/ipv4/conf/" + name);
    file << value << std::flush;
    EXPECT_TRUE(file.good()) << name << " at " << node;
  });
}

void NetLab::command(const std::vector<std::string>& arguments) const {
  const RunResult result = run_quietly(arguments);
  if (result.status == 0) return;
  std::string line;
  for (const std::string& argument : arguments) line += argument + " ";
  ADD_FAILURE() << line << "failed: " << result.output;
}
