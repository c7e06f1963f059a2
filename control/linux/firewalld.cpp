// firewalld: a service of our own in the zones for networks that are trusted to some degree.
#include <algorithm>
#include <map>

#include "control/linux/firewall_programs.h"

namespace {

constexpr const char* PROGRAM = "firewall-cmd";
constexpr const char* SERVICE = "lunderhaze";
constexpr const char* ZONES[] = {"home", "internal", "work", "trusted"};  // never public

// Of "--list-all-zones": a zone's name at the start of a line, " (active)" behind it, and its
// values indented below.
struct Zone {
  bool active = false;
  bool accepts_everything = false;
  std::vector<std::string> services;
  std::vector<std::string> ports;

  bool has_service() const { return std::ranges::find(services, SERVICE) != services.end(); }
};

std::map<std::string, Zone> parse_zones(const std::string& text) {
  std::map<std::string, Zone> zones;
  Zone* zone = nullptr;
  for (const std::string& line : lines_of(text)) {
    const std::vector<std::string> words = words_of(line);
    if (words.empty()) continue;
    if (!line.starts_with(' ')) {
      zone = &zones[words[0]];
      zone->active = line.find("active") != std::string::npos && words.size() > 1;
      continue;
    }
    if (zone == nullptr) continue;
    const std::vector<std::string> values(words.begin() + 1, words.end());
    if (words[0] == "services:") zone->services = values;
    if (words[0] == "ports:") zone->ports = values;
    if (words[0] == "target:") zone->accepts_everything = line.ends_with("ACCEPT");
  }
  return zones;
}

std::string join(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

class Firewalld final : public FirewallProgram {
 public:
  using FirewallProgram::FirewallProgram;

  const char* name() const override { return "firewalld"; }
  bool is_installed() const override { return system_.is_installed(PROGRAM); }
  bool is_active() override { return run({PROGRAM, "--state"}).succeeded(); }
  bool keeps_rules_while_inactive() const override { return false; }
  bool add(std::uint16_t port, std::string* text) override;
  bool remove(std::string* text) override;
  FirewallStatus status(std::uint16_t port) override;

 private:
  using Zones = std::map<std::string, Zone>;
  bool list_zones(bool permanent, Zones* zones, std::string* text) const;
  bool delete_own(const Zones& zones, bool* existed, std::string* text) const;
  bool reload(std::string* text) const { return require({PROGRAM, "--reload"}, text); }
};

bool Firewalld::list_zones(bool permanent, Zones* zones, std::string* text) const {
  std::vector<std::string> asking{PROGRAM, "--list-all-zones"};
  if (permanent) asking.insert(asking.begin() + 1, "--permanent");
  const ProgramEnd end = run(asking);
  if (!end.succeeded()) *text = failure_of(asking, end);
  if (end.succeeded()) *zones = parse_zones(end.output);
  return end.succeeded();
}

// From its zones first: what a zone names must exist.
bool Firewalld::delete_own(const Zones& zones, bool* existed, std::string* text) const {
  const std::string service = SERVICE;
  *existed = run({PROGRAM, "--permanent", "--info-service=" + service}).succeeded();
  for (const auto& [name, zone] : zones) {
    if (zone.has_service() &&
        !require({PROGRAM, "--permanent", "--zone=" + name, "--remove-service=" + service}, text))
      return false;
  }
  return !*existed || require({PROGRAM, "--permanent", "--delete-service=" + service}, text);
}

bool Firewalld::add(std::uint16_t port, std::string* text) {
  const std::string service = SERVICE;
  Zones zones;
  bool existed = false;
  if (!list_zones(true, &zones, text) || !delete_own(zones, &existed, text) ||
      !require({PROGRAM, "--permanent", "--new-service=" + service}, text) ||
      !require({PROGRAM, "--permanent", "--service=" + service,
                "--add-port=" + std::to_string(port) + "/udp"},
               text))
    return false;
  std::vector<std::string> open;
  for (const std::string zone : ZONES) {
    if (!zones.contains(zone)) continue;
    if (!require({PROGRAM, "--permanent", "--zone=" + zone, "--add-service=" + service}, text))
      return false;
    open.push_back(zone);
  }
  if (!reload(text)) return false;
  if (open.empty()) {
    *text = "firewalld has none of the zones home, internal, work and trusted";
    return false;
  }
  *text = "firewalld lets clients in at UDP port " + std::to_string(port) + " in the zones " +
          join(open) + "; which zone a network is in, firewall-cmd --get-active-zones tells";
  return true;
}

bool Firewalld::remove(std::string* text) {
  Zones zones;
  bool existed = false;
  if (!list_zones(true, &zones, text) || !delete_own(zones, &existed, text)) return false;
  if (existed && !reload(text)) return false;
  *text = "firewalld has no rule of this program's any more";
  return true;
}

FirewallStatus Firewalld::status(std::uint16_t port) {
  using State = FirewallStatus::State;
  const std::string wanted = std::to_string(port) + "/udp";
  Zones zones;
  std::string text;
  if (!list_zones(false, &zones, &text)) return {State::Unknown, text};
  const bool used =
      std::ranges::any_of(zones, [](const auto& zone) { return zone.second.has_service(); });
  const std::vector<std::string> service =
      used ? words_of(run({PROGRAM, std::string("--info-service=") + SERVICE}).output)
           : std::vector<std::string>();
  const bool service_opens = std::ranges::find(service, wanted) != service.end();
  std::vector<std::string> open;
  std::vector<std::string> closed;
  for (const auto& [name, zone] : zones) {
    if (!zone.active) continue;
    const bool opens = zone.accepts_everything || (zone.has_service() && service_opens) ||
                       std::ranges::find(zone.ports, wanted) != zone.ports.end();
    (opens ? open : closed).push_back(name);
  }
  const std::string port_text = " clients in at UDP port " + std::to_string(port);
  if (!open.empty())
    return {State::Open, "firewalld is active and lets" + port_text + " in the zone " + join(open)};
  std::string networks = closed.empty() ? "no network is in any zone"
                                        : "the network here is in the zone " + join(closed);
  return {State::Closed, "firewalld is active and lets no" + port_text + ": " + networks};
}

}  // namespace

std::unique_ptr<FirewallProgram> make_firewalld(const FirewallSystem& system,
                                                std::uint32_t budget_ms) {
  return std::make_unique<Firewalld>(system, budget_ms);
}
