#include "tests/support/small_service.h"

#include "connection/clock.h"

using namespace host_service;

namespace {

constexpr std::uint32_t PATIENCE_MS = 60'000;  // of a test that expects an answer
constexpr std::uint32_t POLL_MS = 5;

}  // namespace

SmallService::SmallService(const std::string& channel)
    : commands_(create_pipe(channel, false, true)),
      events_(create_pipe(channel + EVENTS_SUFFIX, false, true)) {}

SmallService::~SmallService() {
  leave();
}

bool SmallService::meet(std::uint32_t timeout_ms) {
  if (!serves() || !connect_pipe(commands_, nullptr, timeout_ms) ||
      !connect_pipe(events_, nullptr, timeout_ms))
    return false;
  thread_ = std::thread([this] { answer_events(); });
  return true;
}

void SmallService::answer_events() {
  std::vector<unsigned char> frame;
  while (read_frame(events_, &frame, &silent_, PATIENCE_MS)) {
    Request request;
    if (!decode_request(frame.data(), frame.size(), &request)) return;
    const bool heartbeat = request.verb == Verb::Heartbeat;
    const Status status = heartbeat ? to_heartbeat_.load() : Status::Ok;
    if (!write_frame(events_, encode_response(request.verb, status, ""), &silent_, PATIENCE_MS))
      return;
    ++(heartbeat ? heartbeats_ : attentions_);
  }
}

bool SmallService::send(const std::vector<unsigned char>& frame) {
  return write_frame(commands_, frame, nullptr, PATIENCE_MS);
}

std::optional<Result> SmallService::ask(Verb verb, const std::vector<unsigned char>& payload) {
  std::vector<unsigned char> frame;
  Result result;
  if (!send(encode_request({verb, payload})) ||
      !read_frame(commands_, &frame, nullptr, PATIENCE_MS) ||
      !decode_response(frame.data(), frame.size(), verb, &result.status, &result.text))
    return std::nullopt;
  return result;
}

bool SmallService::wait_heartbeats(int count, std::uint32_t timeout_ms) {
  const int wanted = heartbeats_ + count;
  const std::uint64_t until_us = lund_now_us() + std::uint64_t{timeout_ms} * 1'000;
  while (heartbeats_ < wanted) {
    if (lund_now_us() > until_us) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(POLL_MS));
  }
  return true;
}

void SmallService::fall_silent() {
  silent_.set();
  if (thread_.joinable()) thread_.join();
}

void SmallService::leave_commands() {
  commands_ = {};
}

void SmallService::leave() {
  fall_silent();
  commands_ = {};
  events_ = {};
}
