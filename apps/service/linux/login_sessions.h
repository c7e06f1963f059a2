// Follows the session that the seat shows, on a thread of its own. Its worker's environment is
// gathered once a session; while the session's processes haven't told it yet, they are looked at
// again every PATIENCE_MS. A mutex guards the view.
#pragma once

#include <functional>
#include <mutex>
#include <thread>

#include "apps/service/linux/session_environment.h"

class LoginSessions final : public SessionSource {
 public:
  static constexpr std::uint32_t PATIENCE_MS = 2'000;

  using FindEnvironment = std::function<std::optional<Environment>(const LoginSession& session)>;

  LoginSessions(std::unique_ptr<LoginSeat> seat, FindEnvironment find, WakeEvent& wake);
  ~LoginSessions() override;

  SessionView active() override;

 private:
  void run();
  SessionView look();

  const std::unique_ptr<LoginSeat> seat_;
  const FindEnvironment find_;
  WakeEvent& wake_;
  WakeEvent stop_{WakeEvent::Reset::Manual};
  std::optional<LoginSession> resolved_;  // whose view this is
  std::mutex mutex_;
  SessionView view_;
  std::thread thread_;
};

// What the seat's session is worth, without its environment: nothing when a worker may serve it.
std::optional<std::string> why_not_served(const std::optional<LoginSession>& session);
