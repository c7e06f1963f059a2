#include "apps/lunderhaze/doctor_checks.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "connection/resolver.h"

namespace {

constexpr std::uint64_t FRAME_SLOW_US = 33'333;     // less than 30 frames a second
constexpr std::uint64_t ROOM_LOW_BYTES = 32 << 20;  // the log alone takes up to 20 MiB
constexpr std::uint64_t ROOM_NONE_BYTES = 1 << 20;

Finding ok(const char* check, std::string text) {
  return {check, Verdict::Ok, std::move(text), {}};
}
Finding warning(const char* check, std::string text, std::string advice) {
  return {check, Verdict::Warning, std::move(text), std::move(advice)};
}
Finding problem(const char* check, std::string text, std::string advice) {
  return {check, Verdict::Problem, std::move(text), std::move(advice)};
}

std::string one_decimal(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}
std::string milliseconds(std::uint64_t us) {
  return one_decimal(static_cast<double>(us) / 1e3) + " ms";
}
std::string size_of(std::uint64_t bytes) {
  return bytes >= 1'000'000'000 ? one_decimal(static_cast<double>(bytes) / 1e9) + " GB"
                                : one_decimal(static_cast<double>(bytes) / 1e6) + " MB";
}
std::string pixels(std::int32_t width, std::int32_t height) {
  return std::to_string(width) + "x" + std::to_string(height);
}
std::string join(const std::vector<std::string>& parts) {
  std::string text;
  for (const std::string& part : parts) text += (text.empty() ? "" : ", ") + part;
  return text;
}

const char* codec_of(bool hevc) {
  return hevc ? " (HEVC)" : " (H.264)";
}

}  // namespace

// ---- The desktop

Finding check_display(const DisplayFacts& facts) {
  if (!facts.obstacle.empty()) return problem("display", facts.obstacle, facts.advice);
  std::vector<std::string> monitors;
  for (const DisplayInfo& display : facts.displays)
    monitors.push_back(display.device + " " + pixels(display.width, display.height) +
                       (display.primary ? " (primary)" : ""));
  if (monitors.empty())
    return problem("display", facts.server + " has no monitor", "switch a monitor on");
  return ok("display", facts.server + ", " + std::to_string(monitors.size()) +
                           (monitors.size() == 1 ? " monitor: " : " monitors: ") + join(monitors));
}

Finding check_capture(const CaptureFacts& facts) {
  if (!facts.failure.empty())
    return problem("capture", "no picture of " + facts.device + " could be taken: " + facts.failure,
                   "the log of a host that is started with --console says more");
  const auto all = static_cast<std::uint64_t>(facts.width) *
                   static_cast<std::uint64_t>(std::max(facts.height, 0));
  const std::string taken = facts.backend + " took a picture of " + facts.device + ", " +
                            pixels(facts.width, facts.height) + ", in " +
                            milliseconds(facts.time_us);
  if (facts.coloured_pixels == 0)
    return warning("capture", taken + ", and all of it is black",
                   "right if the screen is empty or switched off; otherwise what it shows is kept "
                   "from being captured, by the graphics driver or a screen lock");
  const std::uint64_t percent = std::max<std::uint64_t>(100 * facts.coloured_pixels / all, 1);
  return ok("capture", taken + "; " + std::to_string(percent) + " % of it isn't black");
}

Finding check_graphics(const GraphicsFacts& facts) {
  if (facts.encoder.empty())
    return warning("graphics",
                   "the graphics card doesn't capture and encode " + facts.device +
                       ": the processor does both, and needs longer for it",
                   "install the driver of the card's maker, and see that these FFmpeg DLLs have an "
                   "encoder for that card; the log of a host that is started with --console says "
                   "which were tried");
  return ok("graphics", "the graphics card captures " + facts.device + " and encodes it by " +
                            facts.encoder + codec_of(facts.hevc));
}

Finding check_encoder(const EncoderFacts& facts) {
  if (facts.name.empty())
    return problem("encoder", "no video encoder works on this computer",
                   "install this program again: it comes with one that needs no hardware");
  const std::string text = facts.name + codec_of(facts.hevc) + " takes " +
                           milliseconds(facts.frame_us) + " for a frame of 1920x1080";
  if (facts.spare) return ok("encoder", text + ", where the graphics card can't be used");
  if (facts.best_us > FRAME_SLOW_US)
    return warning(
        "encoder",
        text + ", so at most " + std::to_string(1'000'000 / facts.best_us) + " of them a second",
        "stream less: --fps on the host, or a smaller picture at the client");
  return ok("encoder", text);
}

Finding check_input(const InputFacts& facts) {
  if (facts.works) return ok("input", "keyboard and mouse can be played (" + facts.facility + ")");
  return problem("input", "keyboard and mouse can't be played (" + facts.facility + ")",
                 "the usual cause: " + facts.usual_cause);
}

Finding check_clipboard(const ClipboardFacts& facts) {
  if (!facts.exists)
    return warning("clipboard", "there is no clipboard here that could be shared with clients", "");
  if (!facts.shared)
    return ok("clipboard", "not shared with clients, as it was chosen (lunderhaze clipboard on)");
  if (!facts.answers)
    return warning("clipboard", "the program that has what was copied last doesn't give it out",
                   "copy something in another program");
  return ok("clipboard", "can be read, and is shared with clients");
}

Finding check_sound(const SoundFacts& facts) {
  constexpr const char* SILENT = ": clients hear nothing";
  if (!facts.unreachable.empty()) return warning("sound", facts.unreachable + SILENT, facts.advice);
  if (facts.output.empty())
    return warning("sound", std::string("there is no sound output that could be recorded") + SILENT,
                   "choose an output in the desktop's sound settings");
  if (facts.error != 0)
    return warning("sound",
                   "what " + facts.output + " plays can't be recorded (" + facts.facility +
                       " error " + std::to_string(facts.error) + ")" + SILENT,
                   "choose another output in the desktop's sound settings");
  if (!facts.delivers)
    return warning("sound", "no sound came from the recording of " + facts.output + SILENT,
                   "restart the sound server, or choose another output");
  if (facts.muted && !facts.can_be_muted)
    return warning("sound", facts.output + " is muted, which silences its recording here" + SILENT,
                   "unmute it");
  return ok("sound", "what " + facts.output + " plays can be recorded; " +
                         (facts.can_be_muted
                              ? "the speakers can be muted while a client streams"
                              : "the speakers stay on while a client streams: muting them would "
                                "silence the recording with this sound server"));
}

// ---- The network

namespace {

std::string holder_text(const std::optional<PortHolder>& holder) {
  if (!holder) return "another program";
  std::string text = holder->program.empty() ? "another program" : holder->program;
  if (holder->process != 0) text += " (process " + std::to_string(holder->process) + ")";
  if (!holder->user.empty()) text += " of user " + holder->user;
  return text;
}

}  // namespace

Finding check_port(const PortFacts& facts) {
  const std::string port = "UDP port " + std::to_string(facts.port);
  if (facts.silent_host)
    return problem("port", "a host runs on this user's store and doesn't answer",
                   "end it and start it again");
  if (facts.host_port == facts.port) return ok("port", port + " is this user's running host's");
  if (facts.failure.empty()) return ok("port", port + " is free");
  if (facts.holder)
    return problem("port", port + " is taken by " + holder_text(facts.holder),
                   "end that program, or start the host with --port and another number");
  return problem("port", port + " can't be opened: " + facts.failure,
                 "start the host with --port and another number, from 1024 up");
}

Finding check_firewall(const FirewallStatus& status) {
  switch (status.state) {
    case FirewallStatus::State::None:
      return ok("firewall", status.text + ": none that is known here holds clients off");
    case FirewallStatus::State::Open:
      return ok("firewall", status.text);
    case FirewallStatus::State::Closed:
      return problem("firewall", status.text,
                     "lunderhaze firewall on lets clients on private networks in");
    case FirewallStatus::State::Unknown:
      break;
  }
  return warning("firewall", status.text, "");
}

Findings check_relay_servers(const std::vector<RelayFacts>& relays) {
  if (relays.empty())
    return {ok("relays",
               "none: this computer is reached on its own network, or at an address of its own")};
  Findings findings;
  for (const RelayFacts& relay : relays) {
    const std::string text = check_line(relay.name, relay.check);
    findings.push_back(relay.check.result == LUND_RELAY_REACHABLE
                           ? ok("relays", text)
                           : problem("relays", text,
                                     "see that it runs and that its link holds the right key, or "
                                     "take it off the list: lunderhaze relays remove " +
                                         relay.name));
  }
  return findings;
}

// ---- The store

namespace {

struct Loss {
  const char* file;
  const char* text;
  const char* advice;  // null: the platform's
};
constexpr Loss LOSSES[] = {
    {"identity", "the next start makes a new one, and no paired device knows this computer then",
     nullptr},
    {"authorized_clients", "no paired device may connect", "pair the devices again"},
    {"pairing_password", "nobody can pair by password", "set the pairing password again"},
    {"relays", "no relay server is used", "add them again: lunderhaze relays add"},
};

Finding loss_of(const keystore::StoredFile& file, const StoreAdvice& advice) {
  const std::string text = file.name + " is damaged, or another computer's or user's";
  const auto* loss = std::ranges::find(LOSSES, file.name, &Loss::file);
  if (loss == std::end(LOSSES)) return problem("store", text, "");
  return problem("store", text + ": " + loss->text, loss->advice ? loss->advice : advice.identity);
}

void check_room(const StoreFacts& facts, Findings* findings) {
  if (!facts.room_bytes || *facts.room_bytes >= ROOM_LOW_BYTES) return;
  const std::string text =
      "the disk of " + facts.path + " has " + size_of(*facts.room_bytes) + " left";
  constexpr const char* ADVICE = "make room: what changes can't be kept otherwise";
  findings->push_back(*facts.room_bytes < ROOM_NONE_BYTES ? problem("store", text, ADVICE)
                                                          : warning("store", text, ADVICE));
}

}  // namespace

Findings check_store(const StoreFacts& facts) {
  using Directory = StoreFacts::Directory;
  using State = keystore::StoredFile::State;
  constexpr const char* LOST = ": nothing that changes would be kept";
  if (facts.directory == Directory::None)
    return {problem("store", std::string("this user has no home directory") + LOST,
                    facts.advice.no_directory)};
  if (facts.directory == Directory::NoDirectory)
    return {problem("store", facts.path + " is no directory" + LOST, "move it out of the way")};
  Findings findings;
  if (!facts.writable)
    findings.push_back(problem(
        "store",
        facts.path +
            (facts.directory == Directory::Missing ? " can't be made" : " can't be written") + LOST,
        "see whose it is, its permissions, and whether its disk is mounted read-only"));
  if (facts.foreign)
    findings.push_back(problem("store", facts.path + " belongs to another user",
                               "start the host as the user whose store it is"));
  if (!facts.exposed.empty())
    findings.push_back(problem(
        "store", "others than its owner can get at " + join(facts.exposed) + " in " + facts.path,
        facts.advice.exposed));
  check_room(facts, &findings);
  std::vector<std::string> whole;
  for (const keystore::StoredFile& file : facts.files) {
    if (file.state == State::Whole) whole.push_back(file.name);
    if (file.state == State::Unreadable || file.state == State::Malformed)
      findings.push_back(loss_of(file, facts.advice));
  }
  if (!findings.empty()) return findings;
  if (facts.directory == Directory::Missing)
    return {ok("store", "none yet: the first start makes " + facts.path)};
  return {ok("store", facts.path + " is whole" + (whole.empty() ? "" : ": " + join(whole)) +
                          (facts.room_bytes ? "; " + size_of(*facts.room_bytes) + " left" : ""))};
}

Finding not_tried(const std::string& check, const std::string& why) {
  return {check, Verdict::Warning, "not tried: " + why, {}};
}

Finding no_result(const std::string& check, const std::string& what, std::uint64_t after_s) {
  return {check, Verdict::Problem,
          "no result after " + std::to_string(after_s) + " s: " + what + " doesn't answer",
          "see what holds it up, or restart it"};
}
