// The service's own pipe, where administrators' programs ask: one request a connection. Several
// instances are served side by side, each by a thread, and no peer has an instance for longer than
// CLIENT_LIMIT_MS of its own time, so neither a slow nor a hostile one holds up others for more
// than that. Who isn't an administrator is sent away unread. Requests and answers are wiped. The
// mutex is held while an instance is exchanged for a fresh one.
#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "apps/service/seams.h"
#include "control/wake_event.h"

class AdminServer {
 public:
  // What a peer may take in all: to send its request, to take the answer, to close.
  static constexpr std::uint32_t REQUEST_LIMIT_MS = 3'000;
  static constexpr std::uint32_t ANSWER_LIMIT_MS = 1'000;
  static constexpr std::uint32_t CLOSE_LIMIT_MS = 1'000;
  static constexpr std::uint32_t CLIENT_LIMIT_MS =
      REQUEST_LIMIT_MS + ANSWER_LIMIT_MS + CLOSE_LIMIT_MS;
  static constexpr int INSTANCES = 3;  // and one that takes another's place

  // Runs on the instances' threads. The result may hold a secret.
  using Handler = std::function<host_service::Result(const host_service::Request& request)>;

  AdminServer(std::string name, Handler handler, Say say);
  ~AdminServer() { stop(); }
  AdminServer(const AdminServer&) = delete;
  AdminServer& operator=(const AdminServer&) = delete;

  bool start();  // false: the name is served already, or can't be
  void stop();   // answers that are under way still go out

 private:
  void serve_instance(host_service::Pipe pipe);
  void serve(host_service::Pipe& pipe);
  bool exchange(host_service::Pipe& pipe);

  const std::string name_;
  const Handler handler_;
  const Say say_;
  std::mutex renewal_mutex_;
  WakeEvent closing_{WakeEvent::Reset::Manual};
  std::vector<std::thread> threads_;
};
