// What a command came to, for a person and for a script.
#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "control/ipc_transport.h"

namespace ctl {

// What the program returns; scripts rely on these.
enum class Exit : int {
  Done = 0,
  Usage = 1,
  Invalid = 2,      // a name or value was refused
  Denied = 3,       // not an administrator, or the service isn't to be trusted
  Unavailable = 4,  // the service or the worker isn't running
  Persistence = 5,  // the host's store failed
  Failed = 6,       // refused, or the exchange broke off
  NotFound = 7,     // no such device
};

// As JSON and documents name it, "not-found".
const char* exit_name(Exit exit);

// Moving JSON throws nothing, though its code could be read so.
// NOLINTNEXTLINE(bugprone-exception-escape)
struct Outcome {
  Exit exit = Exit::Done;
  std::string text;             // whole lines, for standard output
  std::string error;            // what is wrong and what to do; without a line feed
  nlohmann::ordered_json json;  // what the command tells, without "result" and "message"

  bool done() const { return exit == Exit::Done; }
};

Outcome failure(Exit exit, const std::string& error);
// Of what the service answered other than Ok, or of why it couldn't be asked.
Outcome failure(const host_service::Result& result);

// One object: "result", "message" when there is one, and the command's own keys.
std::string json_text(const Outcome& outcome);

}  // namespace ctl
