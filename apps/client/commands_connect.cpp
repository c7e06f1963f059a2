// connect: receives a host's screen, records and measures it.
#include <cstdio>
#include <system_error>

#include "apps/client/commands.h"
#include "apps/client/connect_run.h"
#include "apps/client/host_access.h"
#include "apps/client/report.h"

namespace client_app {

namespace {

int report_stream(const Arguments& args, HostSession& session, HostLink& link, ExitStatus status) {
  std::string error;
  if (!args.out.empty() && !write_results(args.out, session, link, &error))
    status = static_cast<ExitStatus>(fail(EXIT_LOCAL, error));
  std::fputs(summary(session, link).c_str(), stdout);
  return status;
}

}  // namespace

int run_connect(const Arguments& args) {
  std::string error;
  HostAccess access;
  if (const ExitStatus status = access.open(args, &error); status != EXIT_OK)
    return fail(status, error);
  if (!args.out.empty()) {
    std::error_code failed;
    std::filesystem::create_directories(args.out, failed);
    if (failed)
      return fail(EXIT_LOCAL, "cannot make " + args.out.string() + ": " + failed.message());
  }

  HostLink& link = access.link();
  SessionRequest request;
  request.screens = {make_hello(args)};
  request.recordings = {args.out};
  request.reconnect = args.reconnect;
  ConnectRun run({args.seconds, args.stop});
  HostSession session(link, request, run);
  std::string ended;
  const SessionEnd end = run.run(session, &ended);
  int status = exit_status(end);
  if (session.main().ever_granted()) status = report_stream(args, session, link, exit_status(end));
  if (!access.remember(session, &error)) status = fail(EXIT_LOCAL, error);
  return end == SessionEnd::Done ? status : fail(static_cast<ExitStatus>(status), ended);
}

}  // namespace client_app
