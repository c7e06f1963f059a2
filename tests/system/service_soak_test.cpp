// What takes minutes: a worker killed again and again, and one that hangs.
#include <signal.h>

#include "tests/system/service_support.h"

namespace system_test {
namespace {

using host_service::Verb;
using std::chrono::milliseconds;

class ServiceSoakTest : public ServiceTest {};

// The pause doubles up to 60 times the first, as a second does up to a minute. After each kill the
// client misses the host for 5 s, and comes back without pairing again.
TEST_F(ServiceSoakTest, AWorkerKilled50TimesComesBackEachTimeAndSoDoesItsClient) {
  constexpr milliseconds LONGEST_PAUSE(20 * 60);
  start_service({"--backoff-ms", "20"});
  moving_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{program("lunderhaze-testscreen")}, environment_);
  pair_by_pin();
  start_receiver({"--reconnect"});
  for (int i = 0; i < 50; ++i) {
    const std::size_t said = receiver_->output().size();
    kill_worker(LONGEST_PAUSE);
    ASSERT_TRUE(receiver_->wait_for_output("back after", seconds(10) + SLACK, said))
        << "after kill " << i + 1 << ":\n"
        << receiver_->output();
  }
  EXPECT_NE(status().find("; starts 51; last exit: killed by signal 9\n"), std::string::npos);
}

TEST_F(ServiceSoakTest, AWorkerThatHangsIsKilledAfter15SecondsAndReplaced) {
  constexpr seconds SILENCE(15), PAUSE(1);
  start_service();
  const pid_t former = worker();
  kill(former, SIGSTOP);
  EXPECT_TRUE(comes_true([this] {
    return status().find("\nworker: the worker shows no sign of life\n") != std::string::npos;
  }));
  EXPECT_TRUE(service_->wait_for_output("no sign of life for 15 s: killing it", SILENCE + SLACK));
  EXPECT_TRUE(
      comes_true([&] { return worker() != former && worker_runs(); }, PAUSE + seconds(10) + SLACK));
}

}  // namespace
}  // namespace system_test
