#include "apps/service/worker_link.h"

#include <chrono>
#include <utility>

#include "apps/service/platform.h"
#include "connection/clock.h"
#include "connection/wiped.h"

using namespace host_service;

std::shared_ptr<PipeLink> PipeLink::make(const std::string& channel, Say say, WakeEvent& wake,
                                         const LinkTimes& times) {
  std::shared_ptr<PipeLink> link(new PipeLink(channel, std::move(say), wake, times));
  if (!link->commands_ || !link->events_) return nullptr;
  return link;
}

PipeLink::PipeLink(const std::string& channel, Say say, WakeEvent& wake, const LinkTimes& times)
    : channel_(channel),
      say_(std::move(say)),
      wake_(wake),
      times_(times),
      commands_(create_pipe(channel, false, true)),
      events_(create_pipe(channel + EVENTS_SUFFIX, false, true)) {}

void PipeLink::attach(std::uint32_t worker, std::uint32_t session) {
  worker_ = Process::open(worker);
  session_ = session;
  thread_ = std::thread(&PipeLink::run, this);
}

void PipeLink::close() {
  closing_.set();
  if (stopper_.joinable()) stopper_.join();
  if (thread_.joinable()) thread_.join();
}

void PipeLink::run() {
  if (!accept(commands_, channel_) || !accept(events_, channel_ + EVENTS_SUFFIX)) {
    fall_out("did not open its pipes");
    return;
  }
  stage_ = Stage::Ready;
  while (!closing_.wait(0) && answer_one()) continue;
}

// Somebody else who comes first is sent away; the pipe goes on being served meanwhile.
bool PipeLink::accept(Pipe& pipe, const std::string& name) {
  const std::uint64_t deadline_us = lund_now_us() + std::uint64_t{times_.connect_ms} * 1'000;
  for (;;) {
    const std::uint64_t now_us = lund_now_us();
    if (now_us >= deadline_us) return false;
    const auto left_ms = static_cast<std::uint32_t>((deadline_us - now_us) / 1'000);
    if (!connect_pipe(pipe, &closing_, left_ms)) return false;
    if (is_worker(pipe)) return true;
    say_("a process that is not the worker was sent away from its pipe");
    Pipe next = create_pipe(name, false, false);
    if (!next) return false;
    pipe = std::move(next);
  }
}

bool PipeLink::is_worker(Pipe& pipe) {
  return pipe_client(pipe, false, &worker_, session_);
}

bool PipeLink::answer_one() {
  const std::uint64_t began_us = lund_now_us();
  std::vector<unsigned char> frame;
  if (!read_frame(events_, &frame, &closing_, times_.frame_ms)) {
    // Silence is the supervisor's to judge. A read that failed sooner was the worker's end or a
    // frame that breaks the rules.
    if (lund_now_us() - began_us >= std::uint64_t{times_.frame_ms} * 1'000) return true;
    fall_out("");
    return false;
  }
  Request request;
  const bool understood =
      is_worker(events_) && decode_request(frame.data(), frame.size(), &request);
  const bool attention = understood && request.verb == Verb::SecureAttention;
  if (!attention && !(understood && request.verb == Verb::Heartbeat)) {
    fall_out("sent what is no event of a worker");
    return false;
  }
  if (attention) {
    say_("a client asked for the secure attention sequence: " +
         service_platform::secure_attention());
  } else if (heard_us_.exchange(lund_now_us()) == 0) {
    say_("worker " + std::to_string(worker_.id()) + " is up");
    wake_.set();
  }
  const Status status = refuse_ && !attention ? Status::Unavailable : Status::Ok;
  if (write_frame(events_, encode_response(request.verb, status, ""), &closing_, times_.frame_ms))
    return true;
  fall_out("");
  return false;
}

// The pipes are no use any more. A worker that gets no answer on either ends by itself; if not, the
// supervisor misses its heartbeats.
void PipeLink::fall_out(const std::string& why) {
  stage_ = Stage::Broken;
  if (!why.empty() && !closing_.wait(0)) say_("worker " + std::to_string(worker_.id()) + " " + why);
}

Result PipeLink::request(const Request& request) {
  if (is_silent()) return {Status::Unavailable, "the worker shows no sign of life"};
  std::unique_lock lock(turn_mutex_);
  if (!turn_over_.wait_for(lock, std::chrono::milliseconds(times_.turn_ms),
                           [this] { return !in_turn_; }))
    return {Status::Unavailable, "the worker is busy with another request"};
  in_turn_ = true;
  lock.unlock();
  Result result = exchange_in_turn(request);
  lock.lock();
  in_turn_ = false;
  turn_over_.notify_one();
  return result;
}

Result PipeLink::exchange_in_turn(const Request& request) {
  if (stage_ == Stage::Starting) return {Status::Unavailable, "the worker is starting"};
  if (stage_ == Stage::Broken || closing_.wait(0) || !is_worker(commands_))
    return {Status::Unavailable, "the worker is ending"};
  return exchange(request);
}

bool PipeLink::is_silent() const {
  const std::uint64_t heard_us = heard_us_;
  return heard_us != 0 && lund_now_us() - heard_us > std::uint64_t{times_.silence_ms} * 1'000;
}

Result PipeLink::exchange(const Request& request) {
  const Wiped frame(encode_request(request));
  if (frame.value.empty()) return {Status::Invalid, "invalid request"};
  Wiped<std::vector<unsigned char>> answer;
  Result result;
  if (write_frame(commands_, frame.value, &closing_, times_.frame_ms) &&
      read_frame(commands_, &answer.value, &closing_, times_.answer_ms) &&
      decode_response(answer.value.data(), answer.value.size(), request.verb, &result.status,
                      &result.text))
    return result;
  // A late answer would be taken for the next request's: this worker can be asked nothing more.
  refuse_ = true;
  if (closing_.wait(0) || !worker_.alive()) return {Status::Unavailable, "the worker has ended"};
  stage_ = Stage::Broken;
  say_("worker " + std::to_string(worker_.id()) + " did not answer a request: it is to stop");
  return {Status::Failed, "the worker did not answer"};
}

void PipeLink::ask_to_stop() {
  stopper_ = std::thread([this] {
    // One that can't be asked hears of it with its next heartbeat.
    if (request({Verb::Stop, {}}).status != Status::Ok) refuse_ = true;
  });
}
