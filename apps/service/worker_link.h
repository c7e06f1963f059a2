// The service's ends of one worker's two pipes: the worker asks on the one (heartbeats, secure
// attention) and is asked on the other. Whoever comes to a pipe is let in only as this very worker,
// and asked for its identity again at each frame.
//
// A thread of its own, from `attach` on, waits for the worker and answers it; a second one carries
// Stop. Requests run on their callers' threads, one at a time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "apps/service/seams.h"

struct LinkTimes {
  std::uint32_t connect_ms = 10'000;  // for a worker to start and open its pipes
  std::uint32_t frame_ms = host_service::PIPE_LIMIT_MS;
  // A new password costs the worker an Argon2id; nothing else takes long.
  std::uint32_t answer_ms = 30'000;
  // Since the last heartbeat: a worker that hangs isn't asked.
  std::uint32_t silence_ms = 2'000;
  // For another request's end. Whoever waits takes the answer within 5 s itself.
  std::uint32_t turn_ms = 4'000;
};

class PipeLink final : public WorkerLink {
 public:
  // Serves both pipes from now on, so that the worker finds them; null when they can't be made.
  static std::shared_ptr<PipeLink> make(const std::string& channel, Say say, WakeEvent& wake,
                                        const LinkTimes& times = {});
  ~PipeLink() override { close(); }

  void attach(std::uint32_t worker, std::uint32_t session) override;
  std::uint64_t heard_us() const override { return heard_us_; }
  host_service::Result request(const host_service::Request& request) override;
  void ask_to_stop() override;
  void close() override;

 private:
  enum class Stage { Starting, Ready, Broken };

  PipeLink(const std::string& channel, Say say, WakeEvent& wake, const LinkTimes& times);
  void run();
  bool accept(host_service::Pipe& pipe, const std::string& name);
  bool is_worker(host_service::Pipe& pipe);
  bool is_silent() const;
  bool answer_one();  // false: no more will come
  host_service::Result exchange(const host_service::Request& request);
  host_service::Result exchange_in_turn(const host_service::Request& request);
  void fall_out(const std::string& why);

  const std::string channel_;
  const Say say_;
  WakeEvent& wake_;
  const LinkTimes times_;
  host_service::Pipe commands_;
  host_service::Pipe events_;
  host_service::Process worker_;
  std::uint32_t session_ = 0;

  std::atomic<std::uint64_t> heard_us_{0};
  std::atomic<bool> refuse_{false};  // heartbeats are answered by the order to stop
  std::atomic<Stage> stage_{Stage::Starting};
  WakeEvent closing_{WakeEvent::Reset::Manual};
  std::thread thread_;
  std::thread stopper_;

  std::mutex turn_mutex_;
  std::condition_variable turn_over_;
  bool in_turn_ = false;
};
