#include "apps/lunderhaze/run.h"

#include <atomic>
#include <cstdio>
#include <mutex>
#include <string>

#include "apps/lunderhaze/console.h"
#include "apps/lunderhaze/pair_back.h"
#include "apps/lunderhaze/terminal.h"
#include "apps/terminal/requests.h"
#include "control/command_channel.h"
#include "control/host_commands.h"
#include "control/keystore.h"
#include "control/log.h"
#include "control/relay_list.h"
#include "host/server.h"
#include "streams/host_mute.h"

namespace {

constexpr std::uint32_t FOREVER_MS = 0xFFFFFFFF;

// The main thread's: set by the terminal's requests and by other threads that have something for
// it.
WakeEvent g_wake(WakeEvent::Reset::Auto);
std::atomic<bool> g_stop{false};

void request_stop() {
  g_stop = true;
  g_wake.set();
}

// For the person at the terminal alone.
void show(const std::string& text) {
  std::fputs(text.c_str(), stdout);
  std::fflush(stdout);
}

// The main thread waits for keys, decisions and the end; network threads report events; the
// channel's thread carries out commands.
class HostByHand {
 public:
  HostByHand(const RunOptions& options, const DisplayInfo& display)
      : HostByHand(options, display, native_platform()) {}

  HostByHand(const RunOptions& options, const DisplayInfo& display, const Platform& platform)
      : options_(options),
        mute_(platform.make_sound_endpoints(), keystore::hostStoreDirectory()),
        host_(options.host, display, platform) {
    host_.on_status_change = [this] { follow_streams(); };
    // Input outlives a restart of the X server, or a change of the desktop that receives it.
    host_.injector().set_input_desktop_tracking(true);
    host_.on_event = [this](const lund_conn_event& event) { on_event(event); };
    host_.on_pair_back = [this](const lund_pair_back& back, const lund_session_info& session) {
      return offers_.answer(back, session);
    };
  }

  ExitStatus run() {
    if (const ExitStatus status = start(); status != EXIT_OK) return status;
    watch_requests({request_stop});
    const std::unique_ptr<Terminal> terminal = Terminal::open([](int) { request_stop(); });
    has_terminal_ = terminal != nullptr;
    tell(listening_line(host_.key_code(), options_.host.port, has_terminal_));
    if (host_.pairing_status().open) tell_pairing();
    while (!g_stop) {
      if (!terminal)
        g_wake.wait(FOREVER_MS);
      else if (const auto key = terminal->wait(g_wake))
        press(*key);
      attend_offers();
    }
    channel_.reset();
    host_.shutdown();
    host_.injector().release_all();  // what came in while the last session ended
    mute_.shutdown();
    tell("Stopped.");
    return EXIT_OK;
  }

 private:
  ExitStatus start() {
    // A request that comes meanwhile waits until there is something to ask.
    const std::lock_guard starting(starting_);
    std::string error;
    switch (CommandServer::start(
        keystore::hostStoreDirectory(), [this](const std::string& text) { return serve(text); },
        &channel_, &error)) {
      case CommandServer::Start::Running:
        break;
      case CommandServer::Start::AnotherHost:
        return fail(EXIT_START, error);
      case CommandServer::Start::Failed:
        hlog("%s: this host takes no commands", error.c_str());
    }
    // Not before this host is the store's only one: the speakers of another that runs are its own.
    mute_.init(options_.host.no_mute_host);
    if (!host_.start(&error)) {
      const std::string port = std::to_string(options_.host.port);
      return fail(EXIT_START, error + " on UDP port " + port + "; \"lunderhaze doctor --port " +
                                  port + "\" looks for the reason");
    }
    if (!options_.host.pin.empty() &&
        !host_.set_password(options_.host.pin, HostServer::Keep::ThisRun))
      return fail(EXIT_START, "the password of --pin could not be set: out of memory?");
    running_ = true;
    return EXIT_OK;
  }

  // Whichever thread tells of a change last also sees the sessions as they are then.
  void follow_streams() {
    const std::lock_guard lock(streams_);
    mute_.set_streaming(!host_.sessions().empty());
  }

  std::string report() {
    HostReport report = report_on(host_, options_.host.port);
    report.speakers = mute_.status_line();
    return report_text(report);
  }

  // A line for the person at the terminal, whether or not the log goes there too.
  void tell(const std::string& text) const {
    if (options_.host.console)
      hsay("%s", text.c_str());
    else
      show(text + "\n");
  }

  void tell_pairing() { tell(pairing_line(host_.pairing_status())); }

  void open_pairing(std::uint32_t seconds) {
    host_.pairing_open(seconds);
    tell_pairing();
  }

  void on_event(const lund_conn_event& event) {
    switch (event.type) {
      case LUND_EV_PIN_CHANGED:
        return tell_pairing();
      case LUND_EV_PAIRED:
        return tell(std::string("Paired with \"") + event.name + "\"");
      case LUND_EV_SESSION_UP:
        return tell(std::string("Connected: \"") + event.name + "\"");
      default:
        return;
    }
  }

  // ---- Commands

  std::string serve(const std::string& text) {
    const std::lock_guard started(starting_);
    if (!running_) return format_answer({false, "the host could not start"});
    const std::optional<HostRequest> request = parse_request(text);
    return format_answer(request ? carry_out(*request)
                                 : HostAnswer{false, "the running host doesn't know this request"});
  }

  HostAnswer carry_out(const HostRequest& request) {
    switch (request.kind) {
      case HostRequest::Kind::Status:
        return {true, report()};
      case HostRequest::Kind::Relays:
        host_.set_relays(keystore::load_relays());
        return {true, "applied to the running host"};
      case HostRequest::Kind::Pair:
        open_pairing(request.seconds);
        return {true, pairing_line(host_.pairing_status())};
      case HostRequest::Kind::Authorize:
        if (host_.authorize_client(request.key.data(), request.name))
          return {true, "\"" + request.name + "\" may connect to this computer now"};
        return {false, "the host authorizes no more devices, and never itself"};
      case HostRequest::Kind::Remove:
        if (host_.remove_device({request.key.begin(), request.key.end()}))
          return {true, "removed; the running host has ended its sessions"};
        return {false, "the running host knows no such device"};
      case HostRequest::Kind::Mute:
        if (request.on) mute_.set_enabled(*request.on);
        return {true, mute_line(mute_.enabled())};
      case HostRequest::Kind::Clipboard:
        if (request.on) host_.set_clipboard_enabled(*request.on);
        if (request.on && *request.on != host_.clipboard_enabled())
          return {false, "this computer has no clipboard that could be shared"};
        return {true, clipboard_line(host_.clipboard_enabled())};
    }
    return {};
  }

  // ---- The person at the terminal

  void press(char key) {
    if (asked_ && (key == 'y' || key == 'Y')) return decide(*asked_, true);
    if (asked_ && (key == 'n' || key == 'N' || key == '\n' || key == '\r'))
      return decide(*asked_, false);
    switch (key) {
      case 'p':
        return open_pairing(PAIRING_SECONDS);
      case 's':
        return show(report());
      case 'h':
      case '?':
        return show(KEYS_TEXT);
      case 'q':
        g_stop = true;
        return;
      default:
        return;
    }
  }

  void attend_offers() {
    while (const auto offer = offers_.undecided()) {
      if (options_.accept_pair_back) {
        decide(*offer, true);
      } else if (!has_terminal_) {
        hlog("two-way pairing: \"%s\" (%s): nobody can be asked here (--accept-pair-back accepts)",
             offer->name.c_str(), offer->code().c_str());
        decide(*offer, false);
      } else {
        if (!asked_ || !asked_->same(*offer))
          show(pair_back_question(offer->name, offer->code(), offer->addresses) + "\n");
        asked_ = offer;
        return;
      }
    }
  }

  void decide(const PairBackOffer& offer, bool accepted) {
    std::string error;
    if (accepted && !remember_host(offer, {}, &error)) {
      tell("\"" + offer.name + "\" could not be remembered: " + error);
      accepted = false;
    }
    offers_.decide(offer, accepted);
    hlog("two-way pairing: the offer of \"%s\" (%s) was %s", offer.name.c_str(),
         offer.code().c_str(), accepted ? "accepted" : "not accepted");
    tell("\"" + offer.name +
         (accepted ? "\" can be reached from this computer now" : "\" was not accepted"));
    asked_.reset();
  }

  const RunOptions options_;
  std::mutex starting_;   // held while the host starts, and by each command
  bool running_ = false;  // starting_
  bool has_terminal_ = false;
  std::optional<PairBackOffer> asked_;  // the question that stands on the terminal
  PairBackOffers offers_{[] { g_wake.set(); }};
  std::mutex streams_;  // outside the host's own locks but for that of its events
  HostMute mute_;
  HostServer host_;
  std::unique_ptr<CommandServer> channel_;  // ends before what it commands
};

ExitStatus list_the_displays() {
  for (const DisplayInfo& display : list_displays()) show(describe_display(display) + "\n");
  return EXIT_OK;
}

}  // namespace

ExitStatus fail(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "lunderhaze: %s\n", text.c_str());
  hlog("%s", text.c_str());
  return status;
}

ExitStatus run_host(const RunOptions& options) {
  std::string error;
  if (!keystore::configureHostStore(keystore::User, &error)) return fail(EXIT_STORE, error);
  log_open(options.host.console);
  const std::string obstacle = display_obstacle();
  if (!obstacle.empty()) return fail(EXIT_NO_DISPLAY, obstacle);
  if (options.host.list_displays) return list_the_displays();
  DisplayInfo display;
  if (!select_display(options.host.display, &display) && !options.host.display.empty())
    return fail(EXIT_NO_DISPLAY, "there is no display \"" + options.host.display +
                                     "\": --list-displays shows what there is");
  return HostByHand(options, display).run();
}
