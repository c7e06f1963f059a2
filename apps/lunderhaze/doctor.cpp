#include "apps/lunderhaze/doctor.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include "apps/lunderhaze/commands_internal.h"
#include "apps/lunderhaze/doctor_probe.h"
#include "control/options.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

// The displays come first, since the desktop's other checks make no sense without.
constexpr seconds DISPLAY_PATIENCE{4};
constexpr seconds PATIENCE{9};

// On a thread that nobody joins: what it waits for may never come.
template <typename Work>
auto in_background(Work work) {
  std::packaged_task<decltype(work())()> task(std::move(work));
  auto result = task.get_future();
  std::thread(std::move(task)).detach();
  return result;
}

class Doctor {
 public:
  explicit Doctor(std::optional<std::uint16_t> port) {
    // The order in which they are shown; all but the desktop's run from the start.
    auto display = in_background([platform = platform_] { return probe_display(*platform); });
    Check encoder = start("encoder", "the encoder", [] { return check_encoder(probe_encoder()); });
    const auto port_facts = in_background([port] { return probe_port(port); }).share();
    Check port_check = start("port", "this user's running host",
                             [port_facts] { return check_port(port_facts.get()); });
    Check firewall = start("firewall", "the firewall's program", [port_facts] {
      return check_firewall(firewall_status(port_facts.get().port));
    });
    Check relays =
        start("relays", "the look-up of names", [] { return check_relay_servers(probe_relays()); });
    Check sound = start("sound", "the sound server",
                        [platform = platform_] { return check_sound(probe_sound(*platform)); });
    Check store = start("store", "the disk", [] { return check_store(probe_store()); });
    examine_desktop(std::move(display));
    for (Check* check : {&encoder, &port_check, &firewall, &relays, &sound, &store}) collect(check);
    const bool known = port_facts.wait_for(seconds(0)) == std::future_status::ready;
    result_.port = known ? port_facts.get().port : port.value_or(HostOptions().port);
  }

  Examination result() { return std::move(result_); }

 private:
  struct Check {
    const char* name;
    const char* waits_for;
    std::future<Findings> findings;
  };

  static Findings as_findings(Finding finding) { return {std::move(finding)}; }
  static Findings as_findings(Findings findings) { return findings; }

  template <typename Work>
  static Check start(const char* name, const char* waits_for, Work work) {
    return {name, waits_for, in_background([work] { return as_findings(work()); })};
  }

  void examine_desktop(std::future<DisplayFacts> display) {
    constexpr const char* DESKTOP_CHECKS[] = {"capture", "input", "clipboard"};
    std::string obstacle = "there is no display";
    if (display.wait_until(started_ + DISPLAY_PATIENCE) == std::future_status::ready) {
      const DisplayFacts facts = display.get();
      result_.findings.push_back(check_display(facts));
      DisplayInfo chosen;
      if (select_display(facts.displays, "", &chosen)) return look_at_desktop(chosen);
    } else {
      give_up("display", doctor_platform::DISPLAY_SERVER, DISPLAY_PATIENCE);
      obstacle = "the displays can't be reached";
    }
    for (const char* check : DESKTOP_CHECKS) result_.findings.push_back(not_tried(check, obstacle));
  }

  void look_at_desktop(const DisplayInfo& display) {
    const char* const server = doctor_platform::DISPLAY_SERVER;
    Check capture =
        start("capture", server, [display] { return check_capture(probe_capture(display)); });
    Check input = start("input", server,
                        [platform = platform_] { return check_input(probe_input(*platform)); });
    Check clipboard = start("clipboard", server, [] { return check_clipboard(probe_clipboard()); });
    for (Check* check : {&capture, &input, &clipboard}) collect(check);
  }

  void collect(Check* check) {
    if (check->findings.wait_until(started_ + PATIENCE) != std::future_status::ready)
      return give_up(check->name, check->waits_for, PATIENCE);
    for (Finding& finding : check->findings.get()) result_.findings.push_back(std::move(finding));
  }

  void give_up(const char* name, const char* waits_for, seconds patience) {
    result_.findings.push_back(
        no_result(name, waits_for, static_cast<std::uint64_t>(patience.count())));
    result_.something_hangs = true;
  }

  const Clock::time_point started_ = Clock::now();
  const std::shared_ptr<const Platform> platform_ =
      std::make_shared<const Platform>(native_platform());  // shared with what hangs
  Examination result_;
};

}  // namespace

Examination examine(std::optional<std::uint16_t> port) {
  return Doctor(port).result();
}

ExitStatus doctor_command(const Arguments& args) {
  Arguments rest(args.begin() + 1, args.end());
  std::optional<std::uint16_t> port;
  const bool good_port = take_port(&rest, &port);
  const bool json = std::erase(rest, "--json") != 0;
  if (!good_port || !rest.empty())
    return wrong_usage("doctor takes --json and --port NUMBER (1 to 65535)");
  const Examination result = examine(port);
  say(json ? findings_json(result.findings, result.port) : findings_text(result.findings));
  const ExitStatus status = has_problem(result.findings) ? EXIT_PROBLEM : EXIT_OK;
  if (!result.something_hangs) return status;
  // Not by way of destructors that the threads left behind may still need.
  std::fflush(stdout);
  std::_Exit(status);
}
