// What the tests of the service share: a machine of its own, a desktop outside it, the service with
// its worker and a client inside. One thread.
#pragma once

#include "control/ipc_transport.h"
#include "tests/support/linux/machine_lab.h"
#include "tests/system/system_support.h"
#include "tests/system/user_support.h"

namespace system_test {

inline constexpr std::chrono::seconds SLACK{10};  // of a loaded computer

class ServiceTest : public SystemTest {
 protected:
  void SetUp() override;
  void TearDown() override;

  // In `service_place_`, which may hold what bounds it.
  std::vector<std::string> service_command(const std::vector<std::string>& more) const;
  // A service whose worker runs.
  void start_service(const std::vector<std::string>& more = {});
  // The service alone, until it says this.
  void launch_service(const std::vector<std::string>& more, const std::string& until);
  std::optional<int> end_of_service() { return service_->wait(std::chrono::seconds(30)); }

  // As an administrator's program.
  host_service::Result ask(host_service::Verb verb, const std::vector<unsigned char>& payload = {});
  std::string status() { return ask(host_service::Verb::Status).text; }
  bool worker_runs() { return status().find("worker running; code ") != std::string::npos; }
  void pair_by_pin();

  // The one that runs now; 0 without one.
  pid_t worker() const;
  bool worker_ends(std::chrono::milliseconds deadline) const;
  // Kills the worker, and waits for the one that comes back in its place.
  void kill_worker(std::chrono::milliseconds pause);
  void expect_nothing_left() const;  // once the service has ended
  std::string worker_log() const;

  std::optional<MachineLab> lab_;
  Place service_place_;
  std::unique_ptr<ChildProcess> service_;
  std::unique_ptr<ChildProcess> moving_;  // something that moves on the desktop
};

}  // namespace system_test
