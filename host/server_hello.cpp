// HELLOs on the receive thread: judged against a snapshot, then queued for the setup thread.
#include <algorithm>

#include "connection/clock.h"
#include "control/log.h"
#include "control/text.h"
#include "host/server.h"

namespace {
constexpr std::uint64_t BUSY_LOG_SPACING_US = 5'000'000;
}

void HostServer::handle_hello(const std::uint8_t* data, std::size_t size, const lund_rx_info& rx) {
  lund_hello hello;
  lund_session_info info;
  if (lund_decode_hello(data, size, &hello) != 0) return;
  if (lund_host_session_info_get(host_, rx.session_id, &info) != 0) return;

  auto job = std::make_shared<SetupJob>();
  job->session = rx.session_id;
  job->client.assign(info.client_key, info.client_key + LUND_KEY_SIZE);
  job->name = info.client_name;
  job->code = code_of(info.client_key);
  job->path_label = std::string(lund_path_name(info.path)) + " " + addr_string(info.peer);
  job->path = info.path;
  job->hello.assign(data, data + size);
  job->screen = hello.screen;

  std::vector<SessionPtr> running;
  std::vector<JobPtr> waiting;
  std::vector<SessionSlot> slots;
  {
    std::scoped_lock lock(sessions_mutex_);
    running = sessions_list_;
    waiting = jobs_;
  }
  slots.reserve(running.size() + waiting.size());
  for (const SessionPtr& session : running)
    slots.push_back({session->setup.client, session->setup.session, session->setup.screen, false,
                     session->started, session->setup.hello == job->hello});
  for (const JobPtr& other : waiting)
    slots.push_back(
        {other->client, other->session, other->screen, true, false, other->hello == job->hello});

  const HelloDecision decision =
      decide_hello(slots, job->client, rx.session_id, job->screen, SCREENS);
  const auto slot = static_cast<std::size_t>(decision.slot);
  switch (decision.action) {
    case HelloAction::Start:
      return queue_setup(std::move(job));
    case HelloAction::Replace:
      if (slot < running.size())
        end_session(running[slot], "replaced by a new HELLO from the same client", false, false,
                    running[slot]->setup.session != rx.session_id);
      else
        cancel_job(waiting[slot - running.size()]);
      return queue_setup(std::move(job));
    case HelloAction::AckAgain: {
      const StreamValues stream = running[slot]->stream();
      send_ack(running[slot]->setup.session, LUND_HELLO_ACCEPTED, &stream);
      return running[slot]->force_keyframe(true);
    }
    case HelloAction::Ignore:
      return;
    case HelloAction::Busy:
      return refuse_busy(rx.session_id, job->who());
    case HelloAction::BadScreen:
      return reject(rx.session_id, job->screen, job->who(), bad_screen_message(), true);
  }
}

void HostServer::queue_setup(JobPtr job) {
  {
    std::scoped_lock lock(sessions_mutex_);
    jobs_.push_back(std::move(job));
  }
  setup_cv_.notify_one();
}

void HostServer::cancel_job(const JobPtr& job) {
  std::scoped_lock lock(sessions_mutex_);
  job->cancelled = true;
  std::erase(jobs_, job);
}

void HostServer::refuse_busy(std::uint32_t session, const std::string& who) {
  const std::uint64_t now = lund_now_us();
  std::uint64_t& last = hello_log_us_.back();
  if (now > last + BUSY_LOG_SPACING_US) {
    last = now;
    hlog("HELLO from %s: busy (another device is connected)", who.c_str());
  }
  send_ack(session, LUND_HELLO_BUSY, nullptr);
}
