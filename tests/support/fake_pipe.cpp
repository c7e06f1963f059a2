#include "tests/support/fake_pipe.h"

#include "tests/support/virtual_time.h"

namespace host_service {

struct Pipe::End {
  FakePipe& script;
};

Pipe::Pipe() = default;
Pipe::Pipe(std::unique_ptr<End> end) : end_(std::move(end)) {}
Pipe::~Pipe() = default;
Pipe::Pipe(Pipe&& other) noexcept = default;
Pipe& Pipe::operator=(Pipe&& other) noexcept = default;

const char* const WORKER_PIPE_PREFIX = "/run/lunderhaze/host-worker-v1-";
const char* const EVENTS_SUFFIX = "-events";

Pipe open_pipe(const std::string&, WakeEvent*, std::uint32_t) {
  return {};
}

bool read_frame(Pipe& pipe, std::vector<unsigned char>* frame, WakeEvent* stop,
                std::uint32_t timeout_ms) {
  FakePipe& script = pipe.end()->script;
  script.limits_ms.push_back(timeout_ms);
  if (stop->wait(0)) return false;
  if (script.incoming.empty()) {
    if (script.on_idle) script.on_idle();
    virtual_time::advance_ms(timeout_ms);
    return false;
  }
  *frame = std::move(script.incoming.front());
  script.incoming.pop_front();
  return true;
}

bool write_frame(Pipe& pipe, const std::vector<unsigned char>& frame, WakeEvent* stop,
                 std::uint32_t timeout_ms) {
  FakePipe& script = pipe.end()->script;
  script.limits_ms.push_back(timeout_ms);
  if (stop->wait(0) || script.writes_fail || frame.empty()) return false;
  script.written.push_back(frame);
  if (script.reply) script.reply(frame);
  return true;
}

std::uint32_t pipe_server_id(Pipe& pipe) {
  return pipe.end()->script.server;
}

bool pipe_server(Pipe& pipe, std::uint32_t pid) {
  FakePipe& script = pipe.end()->script;
  ++script.identity_checks;
  return script.trusted && script.server != 0 && (pid == 0 || pid == script.server);
}

}  // namespace host_service

host_service::Pipe fake_pipe(FakePipe& script) {
  return host_service::Pipe(
      std::make_unique<host_service::Pipe::End>(host_service::Pipe::End{script}));
}
