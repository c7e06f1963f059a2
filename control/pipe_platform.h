// What moving frames takes from the platform: one attempt to connect, one step of a transfer, the
// process at the other end. control/<platform>/ defines it, beside what control/ipc_transport.h
// leaves to it: `Pipe`, `create_pipe`, `connect_pipe` and `wait_client_close`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "connection/clock.h"
#include "control/ipc_transport.h"

namespace host_service::pipe_platform {

inline std::uint64_t deadline_of(std::uint32_t timeout_ms) {
  return lund_now_us() + std::uint64_t{timeout_ms} * 1'000;
}

enum class Open { Connected, Retry, Failed };  // Retry: the name is missing, or busy
Open try_open(const std::string& name, Pipe* pipe);

// One step: moves from 1 to `size` bytes. What can be moved at once is; otherwise waits for it. 0
// when the peer has ended, `stop`, which may be null, is set, or the deadline has passed.
std::size_t receive(Pipe::End& end, unsigned char* bytes, std::size_t size, const WakeEvent* stop,
                    std::uint64_t deadline_us);
std::size_t send(Pipe::End& end, const unsigned char* bytes, std::size_t size,
                 const WakeEvent* stop, std::uint64_t deadline_us);

// The process that connected to this end, or that serves the name that this end connected to: never
// a later one with its id. Empty when it can't be told: at the wrong end, when the other has
// closed.
const Process& client(Pipe::End& end);
const Process& server(Pipe::End& end);

}  // namespace host_service::pipe_platform
