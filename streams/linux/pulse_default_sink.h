// Which sink a server of the PulseAudio protocol plays to by default.
#pragma once

#include <pulse/pulseaudio.h>

#include <string>

// Empty while there is none. PipeWire then gives the alias of the default sink in place of a name,
// also for the moment between the end of one and the choice of the next.
inline std::string default_sink_of(const pa_server_info& info) {
  constexpr const char* ALIAS = "@DEFAULT_SINK@";
  const std::string name = info.default_sink_name == nullptr ? "" : info.default_sink_name;
  return name == ALIAS ? "" : name;
}
