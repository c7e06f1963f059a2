// connect: receives a host's screens, records and measures them; types, clicks, and shares sound
// and clipboard for scripts.
#include <algorithm>
#include <cstdio>
#include <optional>
#include <system_error>

#include "apps/client/commands.h"
#include "apps/client/connect_run.h"
#include "apps/client/host_access.h"
#include "apps/client/report.h"

namespace client_app {

namespace {

int report_stream(const Arguments& args, HostSession& session, HostLink& link,
                  const ConnectRun& run, std::FILE* talk, ExitStatus status) {
  std::string error;
  if (!args.out.empty() && !write_results(args.out, session, link, run, &error))
    status = static_cast<ExitStatus>(fail(EXIT_LOCAL, error));
  std::fputs(summary(session, link).c_str(), talk);
  return status;
}

// What else was wanted of a connection that has done its time.
int check_sharing(const Arguments& args, HostSession& session, const ConnectRun& run) {
  int status = EXIT_OK;
  for (const auto& [screen, text] : run.lost_screens())
    status = fail(EXIT_REFUSED, "screen " + std::to_string(screen) + ": " + text);
  // A host that plays nothing sends silence.
  if (!args.audio_out.empty() && session.sound_counts().packets == 0)
    status = fail(EXIT_NO_ANSWER, "no sound came from the host: it has none, or shares none");
  const ClipboardTransfer* clipboard = run.clipboard();
  if (!clipboard) return status;
  using Delivery = ClipboardTransfer::Delivery;
  const Delivery delivery = clipboard->delivery(lund_now_us());
  if (delivery == Delivery::Rejected)
    status = fail(EXIT_REFUSED, "the host's clipboard has rejected the item");
  else if (delivery != Delivery::Delivered && delivery != Delivery::Nothing)
    status = fail(EXIT_NO_ANSWER, "the host's clipboard has not taken the item");
  if (args.clipboard_get.empty()) return status;
  std::string error;
  if (!clipboard->received())
    status = fail(EXIT_NO_ANSWER, "nothing came from the host's clipboard");
  else if (!write_clipboard_item(args.clipboard_get, *clipboard->received(), &error))
    status = fail(EXIT_LOCAL, error);
  return status;
}

lund_hello wish(const Arguments& args, unsigned screen) {
  lund_hello hello = make_hello(args);
  hello.screen = static_cast<std::uint8_t>(screen);
  hello.audio = screen == 0 && !args.audio_out.empty();
  return hello;
}

SessionRequest make_request(const Arguments& args) {
  SessionRequest request;
  request.reconnect = args.reconnect;
  const unsigned first = args.screens == 0 ? args.screen : 0;
  for (unsigned i = 0; i < std::max(args.screens, 1U); ++i) {
    request.screens.push_back(wish(args, first + i));
    request.recordings.push_back(screen_directory(args.out, i));
  }
  return request;
}

bool make_directories(const SessionRequest& request, std::string* error) {
  for (const auto& directory : request.recordings) {
    std::error_code failed;
    if (!directory.empty()) std::filesystem::create_directories(directory, failed);
    if (!failed) continue;
    *error = "cannot make " + directory.string() + ": " + failed.message();
    return false;
  }
  return true;
}

// Sound and clipboard of one run.
struct Sharing {
  WavWriter sound;
  std::optional<ClipboardTransfer> clipboard;

  ExitStatus open(const Arguments& args, std::string* error) {
    const bool shares_clipboard = !args.clipboard_set.empty() || !args.clipboard_get.empty();
    if (args.screen != 0 && (shares_clipboard || !args.audio_out.empty())) {
      *error = "sound and clipboard come with screen 0";
      return EXIT_USAGE;
    }
    std::optional<ClipboardItem> item;
    if (!args.clipboard_set.empty() && !(item = read_clipboard_item(args.clipboard_set, error)))
      return EXIT_USAGE;
    if (!args.audio_out.empty() && !sound.open(args.audio_out, error)) return EXIT_LOCAL;
    if (!shares_clipboard) return EXIT_OK;
    if (clipboard.emplace(std::move(item)).start()) return EXIT_OK;
    *error = "the clipboard could not start";
    return EXIT_LOCAL;
  }
};

}  // namespace

int run_connect(const Arguments& args) {
  std::string error;
  HostAccess access;
  if (const ExitStatus status = access.open(args, &error); status != EXIT_OK)
    return fail(status, error);
  SessionRequest request = make_request(args);
  if (!make_directories(request, &error)) return fail(EXIT_LOCAL, error);
  Sharing sharing;
  if (const ExitStatus status = sharing.open(args, &error); status != EXIT_OK)
    return fail(status, error);

  ConnectRun::Plan plan;
  plan.seconds = args.seconds;
  plan.stop = args.stop;
  plan.actions = args.actions;
  if (!args.audio_out.empty()) plan.sound = &sharing.sound;
  if (sharing.clipboard) request.clipboard = plan.clipboard = &*sharing.clipboard;
  if (args.clipboard_get == "-") plan.talk = stderr;
  ConnectRun run(plan);
  HostLink& link = access.link();
  HostSession session(link, request, run);
  std::string ended;
  const SessionEnd end = run.run(session, &ended);
  int status = exit_status(end);
  if (session.main().ever_granted())
    status = report_stream(args, session, link, run, plan.talk, exit_status(end));
  if (!access.remember(session, &error, plan.talk)) status = fail(EXIT_LOCAL, error);
  if (end != SessionEnd::Done) return fail(static_cast<ExitStatus>(status), ended);
  const int shared = check_sharing(args, session, run);
  return status == EXIT_OK ? shared : status;
}

}  // namespace client_app
