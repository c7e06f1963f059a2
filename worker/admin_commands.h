// What the service's commands do to a running host, and the words that answer them. Any thread; a
// command may take as long as the host's locks and Argon2id do.
#pragma once

#include <string>
#include <vector>

#include "connection/wiped.h"
#include "control/ipc_protocol.h"
#include "control/options.h"
#include "host/status.h"

class HostServer;

namespace host_app {

struct Result {
  host_service::Status status = host_service::Status::Ok;
  std::string text = "completed";  // to PairingOpen the PIN: wiped with the result
  ~Result() { wipe_owned(text); }
};

// `request` is a valid one. `*stop` becomes true when the worker is to end after the answer: on
// Stop, and when the store has failed or the verb threw. Relays and settings are only stored; they
// count from the next start.
Result execute(HostServer& server, const host_service::Request& request, bool* stop);

// True where the store is unhealthy: that is the answer then, whatever else it would have been, and
// the worker ends.
bool end_if_unhealthy(bool* stop, Result* result);

// What the status text tells of a host.
struct StatusView {
  std::string key_code;
  HostStatus host;
  HostOptions defaults;
  bool pairing_open = false;
  bool has_password = false;
  bool password_locked = false;
  std::vector<PairedDevice> devices;
};

// Lines, each closed by a line feed, cut to what a response can hold.
std::string status_text(const StatusView& view);

}  // namespace host_app
