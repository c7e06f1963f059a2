// How the doctor finds out: each function asks this computer for what one check is made of. They
// may block for seconds, or for ever where something hangs.
#pragma once

#include "apps/lunderhaze/doctor_checks.h"
#include "host/platform.h"

DisplayFacts probe_display(const Platform& platform);
CaptureFacts probe_capture(const DisplayInfo& display);
// Nothing where the platform never captures on the graphics card.
std::optional<GraphicsFacts> probe_graphics(const DisplayInfo& display);
EncoderFacts probe_encoder();
InputFacts probe_input(const Platform& platform);
ClipboardFacts probe_clipboard();
SoundFacts probe_sound(const Platform& platform);
PortFacts probe_port(std::optional<std::uint16_t> port);
std::vector<RelayFacts> probe_relays();
StoreFacts probe_store();

// What the platform knows of them; apps/lunderhaze/<platform>/ defines it.
namespace doctor_platform {

extern const char* const DISPLAY_SERVER;  // what may hang behind the displays
extern const char* const SOUND_ADVICE;    // for a computer without a sound server

std::string display_server();  // the one that is asked, by its name
std::string display_advice();  // for what stands in the way of a display

std::optional<PortHolder> port_holder(std::uint16_t udp_port);

// A directory that is there, and what lies in it.
struct Ownership {
  bool writable = false;
  bool foreign = false;
  std::vector<std::string> exposed;
};
Ownership ownership(const std::filesystem::path& directory);
StoreAdvice store_advice(const std::filesystem::path& directory);
bool may_be_made(const std::filesystem::path& directory);  // one that isn't there

// Ends the process as it stands: what hangs may have what destructors need.
[[noreturn]] void end_at_once(int status);

}  // namespace doctor_platform
