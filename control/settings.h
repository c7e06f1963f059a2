// The stored stream settings, host file "settings", and how they become a host's options.
#pragma once

#include "control/ipc_protocol.h"
#include "control/options.h"

namespace host_app {

// Of a worker: the stored settings, or the defaults without any. Malformed ones fail the store and
// throw std::runtime_error with the same text.
HostOptions load_settings();
bool save_settings(const host_service::Settings& settings);

}  // namespace host_app
