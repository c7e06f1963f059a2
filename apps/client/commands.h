// The client's commands: what each takes from the command line, and what the program returns.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include "apps/client/host_link.h"
#include "apps/client/input_script.h"
#include "control/client_store.h"

namespace client_app {

// What the program returns; scripts rely on these.
enum ExitStatus : int {
  EXIT_OK = 0,
  EXIT_USAGE = 1,
  EXIT_NO_ANSWER = 2,
  EXIT_REFUSED = 3,
  EXIT_PAIRING = 4,
  EXIT_LOCAL = 5,
};

inline constexpr int SCREENS_MAX = 4;  // that a host has for one client

struct ViewArguments {
  int screens = 1;
  std::string release_key = "right-ctrl";
  bool relative = false;
  bool full_screen = false;
  bool no_grab = false;
  bool no_sound = false;
  bool no_clipboard = false;
  double seconds = 0;
  std::filesystem::path snapshot, report;
};

struct Arguments {
  std::filesystem::path store;
  bool verbose = false;
  std::string host;
  std::vector<std::string> relays;  // links; "-" stands for those on standard input
  std::filesystem::path relay_file;
  std::string relay;  // of relay add, remove and check
  // discover
  std::uint16_t port = HOST_PORT;
  int wait_ms = 1000;
  // pair
  std::string pin, password, code;
  bool back = false;
  std::uint16_t back_port = HOST_PORT;
  // connect
  std::uint32_t path_mode = LUND_PATHS_ALL;
  bool reconnect = false;
  std::filesystem::path out;
  double seconds = 10;
  double drop_percent = 0;
  std::uint32_t seed = 1;
  unsigned screen = 0, width = 0, height = 0, fps = 0, bitrate_kbps = 0, fec = 0;
  std::string codec;
  bool virtual_display = false;
  unsigned screens = 0;  // this many, from 0 on; 0: only `screen`
  std::filesystem::path audio_out, clipboard_set, clipboard_get;
  std::vector<InputAction> actions;  // of --type and --click, in order
  ViewArguments view;

  const std::atomic<bool>* stop = nullptr;  // Ctrl+C
};

int run_discover(const Arguments& args);
int run_hosts(const Arguments& args);
int run_forget(const Arguments& args);
int run_relay_list(const Arguments& args);
int run_relay_add(const Arguments& args);
int run_relay_remove(const Arguments& args);
int run_relay_check(const Arguments& args);
int run_pair(const Arguments& args);
int run_connect(const Arguments& args);
int run_view(const Arguments& args);

// What pairing and connecting have in common. `own_name` outlives the configuration.
void configure(const Arguments& args, const ClientStore& store, const lund_relay_config& given,
               const std::string& own_name, lund_client_config* config);

// Says on standard error what is wrong, and gives the status back.
int fail(ExitStatus status, const std::string& text);

}  // namespace client_app
