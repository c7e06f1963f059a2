// lunderhaze-client: discovers hosts, pairs with them, and streams from them without a window.
#include <CLI/CLI.hpp>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <iostream>

#include "control/client_store.h"
#include "apps/client/pairing.h"
#include "apps/client/report.h"
#include "apps/client/stream_client.h"
#include "apps/version.h"
#include "control/log.h"
#include "control/sysinfo.h"

namespace {

// What the program returns; scripts rely on these.
enum ExitStatus : int {
  EXIT_OK = 0,
  EXIT_USAGE = 1,
  EXIT_NO_ANSWER = 2,
  EXIT_REFUSED = 3,
  EXIT_PAIRING = 4,
  EXIT_LOCAL = 5,
};

std::atomic<bool> stop_requested{false};
void request_stop(int) {
  stop_requested = true;
}

struct Arguments {
  std::string host;
  std::string pin, password, code;
  std::filesystem::path store;
  std::filesystem::path out;
  double seconds = 10;
  double drop_percent = 0;
  std::uint32_t seed = 1;
  std::uint16_t port = HOST_PORT;
  int wait_ms = 1000;
  bool verbose = false;
  unsigned screen = 0, width = 0, height = 0, fps = 0, bitrate_kbps = 0, fec = 0;
  std::string codec;
};

int fail(ExitStatus status, const std::string& text) {
  std::fprintf(stderr, "lunderhaze-client: %s\n", text.c_str());
  return status;
}

lund_client_config make_config(const ClientStore& store, const std::string& name) {
  lund_client_config config;
  config.identity = store.identity();
  config.name = name.c_str();
  return config;
}

int run_discover(const Arguments& args) {
  std::string error;
  const auto hosts = discover_hosts(args.port, args.wait_ms, &error);
  if (!error.empty()) return fail(EXIT_LOCAL, error);
  for (const FoundHost& host : hosts) {
    char address[LUND_ADDR_TEXT];
    lund_addr_format(address, sizeof address, host.address);
    std::printf("%-24s %-22s %4ux%-4u%s\n", host.reply.name, address, host.reply.width,
                host.reply.height, host.reply.busy ? "  busy" : "");
  }
  if (hosts.empty()) return fail(EXIT_NO_ANSWER, "no host answered");
  return EXIT_OK;
}

int run_pair(const Arguments& args) {
  lund_rv_endpoint address;
  if (lund_net_resolve(args.host.c_str(), HOST_PORT, &address) != 0)
    return fail(EXIT_NO_ANSWER, "no address for " + args.host);
  std::string secret = args.pin.empty() ? args.password : args.pin;
  if (secret == "-") std::getline(std::cin, secret);
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  const std::string name = computer_name_utf8();
  lund_client_config config = make_config(store, name);
  config.host_code = args.code.empty() ? nullptr : args.code.c_str();
  HostLink link;
  if (!link.open(config, &error)) return fail(EXIT_LOCAL, error);
  lund_client_add_candidate(link.engine(), &address, 0);

  lund_host_entry host;
  const std::uint32_t kind = args.pin.empty() ? std::uint32_t{LUND_KIND_PASSWORD} : 0;  // 0: guess
  const PairEnd end = pair_with_host(link, secret, kind, &host, &error);
  lund_secure_wipe(secret.data(), secret.size());
  if (end == PairEnd::NoAnswer) return fail(EXIT_NO_ANSWER, error);
  if (end != PairEnd::Paired) return fail(EXIT_PAIRING, error);
  if (!store.put(host, &error)) return fail(EXIT_LOCAL, error);
  char key_code[LUND_KEY_CODE_TEXT];
  lund_key_code(key_code, host.key);
  std::printf("paired with \"%s\" (%s)\n", host.name, key_code);
  return EXIT_OK;
}

lund_hello make_hello(const Arguments& args) {
  lund_hello hello;
  hello.width = static_cast<std::uint16_t>(args.width);
  hello.height = static_cast<std::uint16_t>(args.height);
  hello.fps = static_cast<std::uint16_t>(args.fps);
  hello.bitrate_kbps = args.bitrate_kbps;
  hello.codec = args.codec == "hevc" ? 1 : args.codec == "h264" ? 2 : 0;
  hello.fec_percent = static_cast<std::uint8_t>(args.fec);
  hello.screen = static_cast<std::uint8_t>(args.screen);
  return hello;
}

ExitStatus exit_status(StreamEnd end) {
  switch (end) {
    case StreamEnd::Done:
      return EXIT_OK;
    case StreamEnd::NoAnswer:
      return EXIT_NO_ANSWER;
    case StreamEnd::LocalFailure:
      return EXIT_LOCAL;
    case StreamEnd::UnknownDevice:
    case StreamEnd::Busy:
    case StreamEnd::Refused:
    case StreamEnd::HostEnded:
      break;
  }
  return EXIT_REFUSED;
}

int run_connect(const Arguments& args) {
  ClientStore store;
  std::string error;
  if (!store.open(args.store, &error)) return fail(EXIT_LOCAL, error);
  const lund_host_entry* host = store.find(args.host);
  if (!host)
    return fail(EXIT_REFUSED,
                "no paired host answers to \"" + args.host + "\": pair first, or name one");
  lund_rv_endpoint address = host->lan_endpoint;
  lund_rv_endpoint given;
  if (lund_addr_parse(&given, args.host.c_str(), HOST_PORT) == 0) address = given;
  if (!args.out.empty()) {
    std::error_code failed;
    std::filesystem::create_directories(args.out, failed);
    if (failed)
      return fail(EXIT_LOCAL, "cannot make " + args.out.string() + ": " + failed.message());
  }

  const std::string name = computer_name_utf8();
  lund_client_config config = make_config(store, name);
  config.has_host_key = 1;
  std::copy(std::begin(host->key), std::end(host->key), config.host_key);
  HostLink link;
  if (!link.open(config, &error)) return fail(EXIT_LOCAL, error);
  lund_client_add_candidate(link.engine(), &address, 0);
  link.set_drop(args.drop_percent, args.seed);

  StreamRequest request;
  request.hello = make_hello(args);
  request.seconds = args.seconds;
  request.out = args.out;
  request.stop = &stop_requested;
  StreamClient stream(link, request);
  const StreamEnd end = stream.run(&error);
  ExitStatus status = exit_status(end);
  if (stream.streaming()) {
    std::string write_error;
    if (!args.out.empty() && !write_results(args.out, stream, link, &write_error))
      status = static_cast<ExitStatus>(fail(EXIT_LOCAL, write_error));
    std::fputs(summary(stream, link).c_str(), stdout);
  }
  if (end != StreamEnd::Done) return fail(status, error);
  lund_host_entry used = *host;
  used.lan_endpoint = address;
  used.last_used = lund_wall_us() / 1'000'000;
  if (!store.put(used, &error)) return fail(EXIT_LOCAL, error);
  return status;
}

int run_program(int argc, char** argv) {
  Arguments args;
  CLI::App app{"Finds, pairs with and receives the screen of a Lunderhaze host."};
  app.set_version_flag("--version", LUND_VERSION_TEXT);
  app.require_subcommand(1);
  app.add_option("--store", args.store, "Directory of this client's identity and paired hosts");
  app.add_flag("--verbose", args.verbose, "Show what the connection layer does");

  CLI::App* discover = app.add_subcommand("discover", "List the hosts on this network");
  discover->add_option("--port", args.port, "UDP port to ask")->capture_default_str();
  discover->add_option("--wait-ms", args.wait_ms, "How long to listen")->capture_default_str();

  CLI::App* pair = app.add_subcommand("pair", "Become a device that the host knows");
  pair->add_option("--host", args.host, "Address or name, with :port if not 9876")->required();
  auto* pin = pair->add_option("--pin", args.pin, "The six digits that the host shows");
  auto* password = pair->add_option("--password", args.password,
                                    "The host's password; - reads it from standard input");
  pair->add_option("--code", args.code, "The host's key code, to be sure that it is the right one");
  pin->excludes(password);
  pair->callback([&] {
    if (args.pin.empty() && args.password.empty()) throw CLI::RequiredError("--pin or --password");
  });

  CLI::App* connect = app.add_subcommand("connect", "Receive a screen, record and measure it");
  connect->add_option("--host", args.host, "Name, key code or address of a paired host")
      ->required();
  connect->add_option("--seconds", args.seconds, "How long; 0: until Ctrl+C")
      ->capture_default_str();
  connect->add_option("--out", args.out, "Directory for the stream, the last picture, report.json");
  connect->add_option("--drop", args.drop_percent, "Percent of datagrams to lose on purpose")
      ->check(CLI::Range(0.0, 100.0));
  connect->add_option("--seed", args.seed, "Seed of that loss")->capture_default_str();
  connect->add_option("--screen", args.screen, "0 to 3")->check(CLI::Range(0, 3));
  connect->add_option("--width", args.width, "Widest picture wanted")->check(CLI::Range(0, 65535));
  connect->add_option("--height", args.height, "Highest picture wanted")
      ->check(CLI::Range(0, 65535));
  connect->add_option("--fps", args.fps, "Pictures a second wanted")->check(CLI::Range(0, 240));
  connect->add_option("--bitrate-kbps", args.bitrate_kbps, "Bit rate wanted");
  connect->add_option("--fec", args.fec, "Parity wanted, percent")->check(CLI::Range(0, 200));
  connect->add_option("--codec", args.codec, "hevc or h264")
      ->check(CLI::IsMember({"hevc", "h264"}));

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? EXIT_OK : EXIT_USAGE;
  }
  if (args.verbose) log_open(true);
  std::signal(SIGINT, request_stop);
  std::signal(SIGTERM, request_stop);
  if (discover->parsed()) return run_discover(args);
  if (pair->parsed()) return run_pair(args);
  return run_connect(args);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run_program(argc, argv);
  } catch (const std::exception& error) {  // out of memory, or a disk that throws
    return fail(EXIT_LOCAL, error.what());
  }
}
