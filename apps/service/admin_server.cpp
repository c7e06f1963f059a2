#include "apps/service/admin_server.h"

#include <utility>

#include "connection/wiped.h"

using namespace host_service;

namespace {

constexpr std::uint32_t WAIT_MS = 60'000;  // for a peer; then again
constexpr std::uint32_t RETRY_MS = 1'000;  // of an instance that can't be made

}  // namespace

AdminServer::AdminServer(std::string name, Handler handler, Say say)
    : name_(std::move(name)), handler_(std::move(handler)), say_(std::move(say)) {}

bool AdminServer::start() {
  Pipe first = create_pipe(name_, true, true);
  if (!first) return false;
  threads_.emplace_back(&AdminServer::serve_instance, this, std::move(first));
  while (threads_.size() < INSTANCES)
    threads_.emplace_back(&AdminServer::serve_instance, this, create_pipe(name_, true, false));
  return true;
}

void AdminServer::stop() {
  closing_.set();
  for (std::thread& thread : threads_) thread.join();
  threads_.clear();
}

void AdminServer::serve_instance(Pipe pipe) {
  while (!closing_.wait(pipe ? 0 : RETRY_MS)) {
    if (pipe) {
      if (!connect_pipe(pipe, &closing_, WAIT_MS)) continue;
      serve(pipe);
    }
    // The fresh one first, so that the name stays this service's; one at a time, so that there are
    // never too many.
    const std::lock_guard lock(renewal_mutex_);
    pipe = create_pipe(name_, true, false);
  }
}

void AdminServer::serve(Pipe& pipe) {
  if (!pipe_client(pipe, true, nullptr, 0)) {
    say_("administration: sent away process " + std::to_string(pipe_client_id(pipe)) +
         ", which is not an administrator's");
    return;
  }
  if (exchange(pipe)) wait_client_close(pipe, nullptr, CLOSE_LIMIT_MS);
}

// When the answer has gone; by then nothing of it is left here.
bool AdminServer::exchange(Pipe& pipe) {
  Wiped<std::vector<unsigned char>> frame;
  Request request;
  const bool understood = read_frame(pipe, &frame.value, &closing_, REQUEST_LIMIT_MS) &&
                          decode_request(frame.value.data(), frame.value.size(), &request);
  if (!understood) {
    if (!closing_.wait(0))
      say_("administration: dropped a request that was incomplete, too slow or malformed");
    return false;
  }
  const Result result = handler_(request);
  const Wiped answer(encode_response(request.verb, result.status, result.text));
  // Not ended by `closing_`: it is the end of the service that the answer to Stop announces.
  return write_frame(pipe, answer.value, nullptr, ANSWER_LIMIT_MS);
}
