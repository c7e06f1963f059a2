// What lunderhaze-ctl makes of any answer to Status: nothing that it shows steers a terminal or
// breaks the JSON, and no device is shown that has no line of its own. The input is the answer.
#include <algorithm>
#include <string>

#include "apps/ctl/commands.h"
#include "control/utf8.h"
#include "fuzz/require.h"

using namespace ctl;

namespace {

class AnyService final : public ServiceLink {
 public:
  explicit AnyService(std::string text) : text_(std::move(text)) {}
  host_service::Result ask(const host_service::Request& request) override {
    if (request.verb != host_service::Verb::Status) return {host_service::Status::Failed, text_};
    return {host_service::Status::Ok, text_};
  }

 private:
  std::string text_;
};

bool harmless(const std::string& text) {
  return is_utf8(text) && text.find("\xC2\x9B") == text.npos &&
         std::all_of(text.begin(), text.end(), [](char byte) {
           return byte == '\n' || (static_cast<unsigned char>(byte) >= ' ' && byte != 0x7F);
         });
}

void check(const Outcome& outcome) {
  require(harmless(outcome.text) && harmless(outcome.error), "what is shown steers no terminal");
  require(outcome.error.find('\n') == outcome.error.npos, "an error is a line");
  const std::string json = json_text(outcome);
  require(harmless(json), "JSON steers no terminal either");
  require(nlohmann::json::parse(json)["result"] == exit_name(outcome.exit), "JSON is whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* bytes, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(bytes), size);
  AnyService service(text);
  const HostReport report = parse_status(text);
  require(report.devices.size() + report.screens.size() <=
              static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')),
          "a line has one device or screen at most");
  require(report.cut == (!text.empty() && text.back() != '\n'), "what is cut off is told");
  check(show_status(service));
  check(list_devices(service));
  check(get_settings(service, {}));
  check(restart_worker(service, false));
  for (const DeviceLine& device : report.devices) check(remove_device(service, device.name));
  return 0;
}
