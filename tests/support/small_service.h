// A worker's service as small as it can be: it serves both pipes of one worker, asks on the first,
// and answers on the second, on a thread of its own, for as long as the test wants it to. All else
// one thread. Only where pipes may be served, which needs the system's own process.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <thread>

#include "control/ipc_transport.h"

class SmallService {
 public:
  explicit SmallService(const std::string& channel);  // the pipe's name; it is served from here on
  ~SmallService();
  SmallService(const SmallService&) = delete;
  SmallService& operator=(const SmallService&) = delete;

  bool serves() const { return commands_ && events_; }
  // Waits until the worker has opened both pipes, and answers it from then on.
  bool meet(std::uint32_t timeout_ms = 20'000);
  host_service::Pipe& commands() { return commands_; }
  host_service::Pipe& events() { return events_; }

  // A whole exchange; nothing when the worker breaks it off.
  std::optional<host_service::Result> ask(host_service::Verb verb,
                                          const std::vector<unsigned char>& payload = {});
  bool send(const std::vector<unsigned char>& frame);  // whatever it is

  int heartbeats() const { return heartbeats_; }
  int attentions() const { return attentions_; }
  bool wait_heartbeats(int count, std::uint32_t timeout_ms = 20'000);  // more than there were
  void order_stop() { to_heartbeat_ = host_service::Status::Unavailable; }
  void fall_silent();     // reads no more events, but stays there
  void leave_commands();  // closes that pipe alone
  void leave();           // closes both

 private:
  void answer_events();

  host_service::Pipe commands_;
  host_service::Pipe events_;
  WakeEvent silent_{WakeEvent::Reset::Manual};
  std::atomic<int> heartbeats_{0};
  std::atomic<int> attentions_{0};
  std::atomic<host_service::Status> to_heartbeat_{host_service::Status::Ok};
  std::thread thread_;
};
