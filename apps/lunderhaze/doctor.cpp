#include "apps/lunderhaze/doctor.h"

#include <chrono>
#include <cstdio>
#include <functional>
#include <future>
#include <memory>
#include <thread>
#include <tuple>
#include <type_traits>

#include "apps/lunderhaze/commands_internal.h"
#include "apps/lunderhaze/doctor_probe.h"
#include "control/options.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

// The displays come first, since the desktop's other checks make no sense without.
constexpr seconds DISPLAY_PATIENCE{4};
constexpr seconds PATIENCE{9};

// Work on a thread of its own. What that waits for may never come; then it is left behind, though
// not detached: the run-time library of MinGW takes a thread's record back twice when it ends while
// it is being detached, and gives it to two others.
template <typename Result>
class InBackground {
 public:
  template <typename Work>
  explicit InBackground(Work work) {
    std::packaged_task<Result()> task(std::move(work));
    result_ = task.get_future().share();
    thread_ = std::make_unique<std::thread>(std::move(task));
  }
  InBackground(InBackground&& other) noexcept = default;
  ~InBackground() {
    if (!thread_) return;
    if (result_.wait_for(seconds(0)) == std::future_status::ready)
      thread_->join();
    else
      std::ignore = thread_.release();  // until the process ends
  }

  bool done_by(Clock::time_point deadline) const {
    return result_.wait_until(deadline) == std::future_status::ready;
  }
  const std::shared_future<Result>& result() const { return result_; }

 private:
  std::shared_future<Result> result_;
  std::unique_ptr<std::thread> thread_;
};
template <typename Work>
InBackground(Work) -> InBackground<std::invoke_result_t<Work>>;

class Doctor {
 public:
  explicit Doctor(std::optional<std::uint16_t> port) {
    // The order in which they are shown; all but the desktop's run from the start.
    const InBackground display([platform = platform_] { return probe_display(*platform); });
    const InBackground encoder_probe([] { return probe_encoder(); });
    const std::shared_future<EncoderFacts>& encoder_facts = encoder_probe.result();
    const InBackground port_probe([port] { return probe_port(port); });
    const std::shared_future<PortFacts>& port_facts = port_probe.result();
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
    examine_desktop(display);
    Check encoder = start("encoder", "the encoder", [encoder_facts, spare = card_encodes_] {
      EncoderFacts facts = encoder_facts.get();
      facts.spare = spare;
      return check_encoder(facts);
    });
    for (Check* check : {&encoder, &port_check, &firewall, &relays, &sound, &store}) collect(check);
    const bool known = port_probe.done_by(started_);
    result_.port = known ? port_facts.get().port : port.value_or(HostOptions().port);
  }

  Examination result() { return std::move(result_); }

 private:
  struct Check {
    const char* name;
    const char* waits_for;
    InBackground<Findings> findings;
  };

  static Findings as_findings(Finding finding) { return {std::move(finding)}; }
  static Findings as_findings(Findings findings) { return findings; }

  template <typename Work>
  static Check start(const char* name, const char* waits_for, Work work) {
    return {name, waits_for, InBackground([work] { return as_findings(work()); })};
  }

  void examine_desktop(const InBackground<DisplayFacts>& display) {
    constexpr const char* DESKTOP_CHECKS[] = {"capture", "input", "clipboard"};
    std::string obstacle = "there is no display";
    if (display.done_by(started_ + DISPLAY_PATIENCE)) {
      const DisplayFacts& facts = display.result().get();
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
    const InBackground graphics([display] { return probe_graphics(display); });
    Check input = start("input", server,
                        [platform = platform_] { return check_input(probe_input(*platform)); });
    Check clipboard = start("clipboard", server, [] { return check_clipboard(probe_clipboard()); });
    collect(&capture);
    collect_graphics(graphics);
    for (Check* check : {&input, &clipboard}) collect(check);
  }

  void collect_graphics(const InBackground<std::optional<GraphicsFacts>>& graphics) {
    if (!graphics.done_by(started_ + PATIENCE))
      return give_up("graphics", "the graphics card's driver", PATIENCE);
    const std::optional<GraphicsFacts>& facts = graphics.result().get();
    if (!facts) return;
    card_encodes_ = !facts->encoder.empty();
    result_.findings.push_back(check_graphics(*facts));
  }

  void collect(Check* check) {
    if (!check->findings.done_by(started_ + PATIENCE))
      return give_up(check->name, check->waits_for, PATIENCE);
    for (const Finding& finding : check->findings.result().get())
      result_.findings.push_back(finding);
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
  bool card_encodes_ = false;
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
  std::fflush(stdout);
  doctor_platform::end_at_once(status);
}
