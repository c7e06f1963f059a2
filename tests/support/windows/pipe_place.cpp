#include "tests/support/pipe_place.h"

#include "control/ipc_transport.h"

// Windows lets only the system make something that belongs to it; Wine lets everybody.
bool PipePlace::possible() {
  return static_cast<bool>(host_service::create_pipe(PipePlace() / "tried", false, true));
}

PipePlace::PipePlace() = default;

std::string PipePlace::operator/(const std::string& name) const {
  return "\\\\.\\pipe\\" + directory_.path().filename().string() + "-" + name;
}
