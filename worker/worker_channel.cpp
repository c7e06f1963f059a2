#include "worker/worker_channel.h"

#include <string>
#include <utility>
#include <vector>

#include "connection/wiped.h"
#include "worker/admin_commands.h"

namespace host_app {

using namespace host_service;
using Bytes = std::vector<unsigned char>;

WorkerChannel::WorkerChannel(Pipe commands, Pipe events, WakeEvent& stop_event,
                             std::uint32_t supervisor)
    : commands_(std::move(commands)),
      events_(std::move(events)),
      stop_event_(stop_event),
      supervisor_(supervisor) {}

WorkerChannel::~WorkerChannel() {
  stop_event_.set();
  join();
}

void WorkerChannel::start(HostServer& server) {
  events_thread_ = std::thread([this] {
    while (event_step()) {
    }
  });
  commands_thread_ = std::thread([this, &server] {
    while (command_step(server)) {
    }
  });
}

void WorkerChannel::join() {
  for (std::thread* thread : {&events_thread_, &commands_thread_})
    if (thread->joinable()) thread->join();
}

bool WorkerChannel::end() {
  stop_event_.set();
  return false;
}

// ---- Commands

bool WorkerChannel::command_step(HostServer& server) {
  if (stop_event_.wait(0)) return false;
  Wiped<Bytes> frame;
  if (!read_frame(commands_, &frame.value, &stop_event_, PIPE_LIMIT_MS))
    return supervisor_still_there() || end();  // it may just have had nothing to say
  Request request;
  const bool go_on = pipe_server(commands_, supervisor_) &&
                     decode_request(frame.value.data(), frame.value.size(), &request) &&
                     answer(server, request);
  return go_on || end();
}

bool WorkerChannel::supervisor_still_there() {
  const std::uint32_t id = pipe_server_id(commands_);
  return id != 0 && id == supervisor_ && pipe_server(commands_, id);
}

// False when this was the worker's last.
bool WorkerChannel::answer(HostServer& server, const Request& request) {
  bool stop = false;
  Result result = execute(server, request, &stop);
  end_if_unhealthy(&stop, &result);
  const Wiped response(encode_response(request.verb, result.status, result.text));
  return write_frame(commands_, response.value, &stop_event_, PIPE_LIMIT_MS) && !stop;
}

// ---- Events

bool WorkerChannel::event_step() {
  if (stop_event_.wait(0)) return false;
  const Verb verb = sas_requested.exchange(false) ? Verb::SecureAttention : Verb::Heartbeat;
  Status status = Status::Failed;
  if (!ask(verb, &status)) return end();
  // To a heartbeat the service may answer that it is to be the last. What became of the request for
  // attention is the service's affair.
  if (verb == Verb::Heartbeat && status != Status::Ok) return end();
  return !stop_event_.wait(HEARTBEAT_MS);
}

bool WorkerChannel::ask(Verb verb, Status* status) {
  Bytes frame;
  std::string text;
  return pipe_server(events_, supervisor_) &&
         write_frame(events_, encode_request({verb, {}}), &stop_event_, PIPE_LIMIT_MS) &&
         read_frame(events_, &frame, &stop_event_, PIPE_LIMIT_MS) &&
         decode_response(frame.data(), frame.size(), verb, status, &text);
}

}  // namespace host_app
