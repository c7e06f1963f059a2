#include "apps/ctl/outcome.h"

#include <iterator>

#include "apps/ctl/shown_text.h"
#include "apps/ctl/words.h"

namespace ctl {

using host_service::Status;

namespace {

constexpr const char* EXIT_NAMES[] = {"done",        "usage",       "invalid", "denied",
                                      "unavailable", "persistence", "failed",  "not-found"};

// The texts of transact are its own, whoever else answers with the same status.
struct Advice {
  Status status;
  Exit exit;
  const char* text;   // null: any other
  std::string words;  // behind the text
};
const Advice ADVICE[] = {
    {Status::Invalid, Exit::Invalid, nullptr, ""},
    {Status::Denied, Exit::Denied, "untrusted service endpoint",
     ": the program that serves the service's pipe is not the system's own, and was told nothing; "
     "end it, and start lunderhaze-service"},
    {Status::Denied, Exit::Denied, nullptr, ": the service doesn't allow this"},
    {Status::Unavailable, Exit::Unavailable, "service unavailable or access denied",
     std::string(": ") + START_SERVICE},
    {Status::Unavailable, Exit::Unavailable, nullptr,
     std::string(": \"lunderhaze-ctl status\" shows how the last worker ended, ") + WORKER_LOG +
         " more"},
    {Status::Persistence, Exit::Persistence, nullptr,
     ": the host could not write its store, and the worker stops; see to the disk and to the owner "
     "and mode of the store's directory, then \"lunderhaze-ctl restart\""},
    {Status::Failed, Exit::Failed, "bounded IPC request failed",
     ": the service broke off or gave no answer in time; \"lunderhaze-ctl status\" shows what has "
     "come of it"},
    {Status::Failed, Exit::NotFound, "device not paired", ""},
    {Status::Failed, Exit::Failed, nullptr, ""},
};

}  // namespace

const char* exit_name(Exit exit) {
  return EXIT_NAMES[static_cast<int>(exit)];
}

Outcome failure(Exit exit, const std::string& error) {
  return {exit, {}, error, {}};
}

Outcome failure(const host_service::Result& result) {
  for (const Advice& advice : ADVICE) {
    if (advice.status != result.status || (advice.text && advice.text != result.text)) continue;
    return failure(advice.exit, shown_text(result.text) + advice.words);
  }
  return failure(Exit::Failed, shown_text(result.text));
}

std::string json_text(const Outcome& outcome) {
  nlohmann::ordered_json json;
  json["result"] = exit_name(outcome.exit);
  if (!outcome.error.empty()) json["message"] = outcome.error;
  for (const auto& [key, value] : outcome.json.items()) json[key] = value;
  constexpr int INDENT = 2;
  constexpr bool ASCII_ONLY = true;  // nothing that a terminal could take for a control byte
  return json.dump(INDENT, ' ', ASCII_ONLY) + "\n";
}

}  // namespace ctl
