// ufw: rules for the three private ranges of RFC 1918, known again by their comment.
#include <algorithm>
#include <optional>

#include "control/linux/firewall_programs.h"
#include "control/store_platform.h"

namespace {

constexpr const char* PRIVATE_RANGES[] = {"10.0.0.0/8", "172.16.0.0/12", "192.168.0.0/16"};
constexpr const char* COMMENT = "Lunderhaze";
constexpr std::size_t CONFIGURATION_LIMIT_BYTES = 65'536;

class Ufw final : public FirewallProgram {
 public:
  using FirewallProgram::FirewallProgram;

  const char* name() const override { return "ufw"; }
  bool is_installed() const override { return system_.is_installed("ufw"); }
  bool is_active() override;
  bool keeps_rules_while_inactive() const override { return true; }
  bool add(std::uint16_t port, std::string* text) override;
  bool remove(std::string* text) override { return delete_own(text); }
  FirewallStatus status(std::uint16_t port) override;

 private:
  bool delete_own(std::string* text) const;
};

// ufw answers administrators alone; for others there is what it is configured to be.
bool Ufw::is_active() {
  if (system_.administrator)
    return run({"ufw", "status"}).output.find("Status: active") != std::string::npos;
  std::string text;
  store_platform::read_file(system_.ufw_configuration, CONFIGURATION_LIMIT_BYTES, &text);
  const std::vector<std::string> lines = lines_of(text);
  return std::ranges::find(lines, "ENABLED=yes") != lines.end();
}

bool Ufw::add(std::uint16_t port, std::string* text) {
  if (!delete_own(text)) return false;
  for (const char* range : PRIVATE_RANGES) {
    if (!require({"ufw", "allow", "proto", "udp", "from", range, "to", "any", "port",
                  std::to_string(port), "comment", COMMENT},
                 text))
      return false;
  }
  *text = "ufw lets 10.0.0.0/8, 172.16.0.0/12 and 192.168.0.0/16 in at UDP port " +
          std::to_string(port);
  return true;
}

// "ufw show added" lists rules as the commands that make them: "ufw allow from 10.0.0.0/8 to any
// port 9876 proto udp comment 'Lunderhaze'".
bool Ufw::delete_own(std::string* text) const {
  const std::vector<std::string> listing{"ufw", "show", "added"};
  const ProgramEnd listed = run(listing);
  if (!listed.succeeded()) {
    *text = failure_of(listing, listed);
    return false;
  }
  const std::string suffix = std::string(" comment '") + COMMENT + "'";
  for (const std::string& line : lines_of(listed.output)) {
    if (!line.starts_with("ufw ") || !line.ends_with(suffix)) continue;
    std::vector<std::string> words = words_of(line.substr(0, line.size() - suffix.size()));
    words.insert(words.begin() + 1, "delete");
    if (!require(words, text)) return false;
  }
  *text = "ufw has no rule of this program's any more";
  return true;
}

// A line of the list: "9876/udp  ALLOW IN  192.168.0.0/16  # Lunderhaze". A rule that names the
// port alone, for any protocol, counts as well, whoever made it.
FirewallStatus Ufw::status(std::uint16_t port) {
  using State = FirewallStatus::State;
  const std::string number = std::to_string(port);
  const std::vector<std::string> asking{"ufw", "status", "verbose"};
  const ProgramEnd end = run(asking);
  if (!end.succeeded()) return {State::Unknown, failure_of(asking, end)};
  const bool lets_all_in = end.output.find("Default: allow (incoming)") != std::string::npos;
  const std::vector<std::string> lines = lines_of(end.output);
  const bool has_rule = std::ranges::any_of(lines, [&number](const std::string& line) {
    const std::vector<std::string> words = words_of(line);
    return words.size() > 1 && (words[0] == number + "/udp" || words[0] == number) &&
           words[1] == "ALLOW";
  });
  if (lets_all_in) return {State::Open, "ufw is active and lets everything in"};
  if (has_rule)
    return {State::Open, "ufw is active and has a rule that lets UDP port " + number + " in"};
  return {State::Closed, "ufw is active and has no rule that lets UDP port " + number + " in"};
}

}  // namespace

std::unique_ptr<FirewallProgram> make_ufw(const FirewallSystem& system, std::uint32_t budget_ms) {
  return std::make_unique<Ufw>(system, budget_ms);
}
