#include "control/ipc_transport.h"

#include <utility>

#include "connection/clock.h"
#include "connection/wiped.h"
#include "control/pipe_platform.h"

namespace host_service {

namespace {

using Bytes = std::vector<unsigned char>;

constexpr std::uint32_t RETRY_MS = 25;

using Frame = Wiped<Bytes>;  // it may hold a password or a PIN

// All of the bytes, by steps of either way. The deadline is strict: when it has passed, the last
// byte may have come and the transfer has failed all the same.
template <class Byte>
bool transfer(std::size_t step(Pipe::End&, Byte*, std::size_t, const WakeEvent*, std::uint64_t),
              Pipe::End& end, Byte* bytes, std::size_t size, const WakeEvent* stop,
              std::uint64_t deadline_us) {
  for (std::size_t done = 0; done < size;) {
    const std::size_t moved = step(end, bytes + done, size - done, stop, deadline_us);
    if (moved == 0 || moved > size - done || lund_now_us() > deadline_us) return false;
    done += moved;
  }
  return true;
}

// False when the caller is to stop.
bool pause(WakeEvent* stop) {
  if (stop != nullptr) return !stop->wait(RETRY_MS);
  WakeEvent(WakeEvent::Reset::Manual).wait(RETRY_MS);
  return true;
}

// `result` is written only when all of it has succeeded.
bool exchange(Pipe& pipe, const Request& request, WakeEvent* stop, Result* result) {
  const Frame asked(encode_request(request));
  Frame answer;
  return write_frame(pipe, asked.value, stop, PIPE_LIMIT_MS) &&
         read_frame(pipe, &answer.value, stop, PIPE_LIMIT_MS) &&
         decode_response(answer.value.data(), answer.value.size(), request.verb, &result->status,
                         &result->text);
}

}  // namespace

Pipe open_pipe(const std::string& name, WakeEvent* stop, std::uint32_t timeout_ms) {
  const std::uint64_t deadline_us = pipe_platform::deadline_of(timeout_ms);
  Pipe pipe;
  for (;;) {
    switch (pipe_platform::try_open(name, &pipe)) {
      case pipe_platform::Open::Connected:
        return pipe;
      case pipe_platform::Open::Failed:
        return {};
      case pipe_platform::Open::Retry:
        if (!pause(stop) || lund_now_us() >= deadline_us) return {};
    }
  }
}

bool read_frame(Pipe& pipe, std::vector<unsigned char>* frame, WakeEvent* stop,
                std::uint32_t timeout_ms) {
  if (!pipe) return false;
  const std::uint64_t deadline_us = pipe_platform::deadline_of(timeout_ms);
  Frame read;
  const auto append = [&](std::size_t size) {
    const std::size_t at = read.value.size();
    read.value.resize(at + size);
    return transfer(pipe_platform::receive, *pipe.end(), read.value.data() + at, size, stop,
                    deadline_us);
  };
  std::uint16_t verb = 0;
  std::uint32_t length = 0;
  read.value.reserve(FRAME_MAX);  // growth would leave bytes behind
  if (!append(HEADER_BYTES) ||
      !decode_header(read.value.data(), read.value.size(), &verb, &length) || !append(length))
    return false;
  frame->swap(read.value);  // what was there before is wiped
  return true;
}

bool write_frame(Pipe& pipe, const std::vector<unsigned char>& frame, WakeEvent* stop,
                 std::uint32_t timeout_ms) {
  return pipe && !frame.empty() && frame.size() <= FRAME_MAX &&
         transfer(pipe_platform::send, *pipe.end(), frame.data(), frame.size(), stop,
                  pipe_platform::deadline_of(timeout_ms));
}

std::uint32_t pipe_client_id(Pipe& pipe) {
  return pipe ? pipe_platform::client(*pipe.end()).id() : 0;
}

std::uint32_t pipe_server_id(Pipe& pipe) {
  return pipe ? pipe_platform::server(*pipe.end()).id() : 0;
}

bool pipe_client(Pipe& pipe, bool require_admin, const Process* worker_process,
                 std::uint32_t session) {
  if (!pipe) return false;
  const Process& client = pipe_platform::client(*pipe.end());
  if (client.id() == 0 || !client.alive()) return false;
  if (require_admin) return elevated_admin_process(client);
  // Of two processes that are both alive the ids differ.
  std::uint32_t number = 0;
  return worker_process != nullptr && worker_process->id() == client.id() &&
         worker_process->alive() && system_process(client, &number) && number == session;
}

bool pipe_server(Pipe& pipe, std::uint32_t pid) {
  if (!pipe) return false;
  const Process& server = pipe_platform::server(*pipe.end());
  return server.id() != 0 && (pid == 0 || server.id() == pid) && system_process(server, nullptr) &&
         server.alive();
}

Result transact(const std::string& name, const Request& request, WakeEvent* stop) {
  Pipe pipe = open_pipe(name, stop, PIPE_LIMIT_MS);
  if (!pipe) return {Status::Unavailable, "service unavailable or access denied"};
  if (!pipe_server(pipe, 0)) return {Status::Denied, "untrusted service endpoint"};
  Result result;
  if (!exchange(pipe, request, stop, &result))
    return {Status::Failed, "bounded IPC request failed"};
  return result;
}

}  // namespace host_service
