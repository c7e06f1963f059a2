#include "tests/system/reach_support.h"

#include <signal.h>

namespace system_test {

void ReachTest::SetUp() {
  if (!NetLab::missing().empty()) GTEST_SKIP() << NetLab::missing();
  SystemTest::SetUp();
  lab_.emplace();
}

void ReachTest::TearDown() {
  if (!lab_) return;
  if (HasFailure()) {
    if (receiver_) ADD_FAILURE() << "the client said:\n" << receiver_->output();
    if (server_) ADD_FAILURE() << "the server said:\n" << server_->output();
  }
  screen_.reset();
  SystemTest::TearDown();
  server_.reset();
  lab_.reset();
}

void ReachTest::build(Nat host, std::optional<Nat> client) {
  lab_->add_internet_host("server", SERVER);
  lab_->add_site("host-router", host, HOST_PUBLIC, "192.168.1.1");
  lab_->add_site_host("host", "host-router", HOST_LAN);
  if (client) {
    lab_->add_site("client-router", *client, CLIENT_PUBLIC, "192.168.2.1");
    lab_->add_site_host("client", "client-router", CLIENT_LAN);
  } else {
    lab_->add_internet_host("client", CLIENT_PUBLIC);
  }
  lab_->join_lan("client", "host-router", "home", CLIENT_AT_HOME);
  take_places();
}

void ReachTest::take_places() {
  host_place_ = lab_->inside("host", {});
  client_place_ = lab_->inside("client", {});
  port_ = 9876;  // nobody else's: the host has a network of its own
}

void ReachTest::start_server(const std::string& name, const std::vector<std::string>& arguments) {
  server_name_ = name;
  std::vector<std::string> all = {"--host", name, "--key", KEY};
  all.insert(all.end(), arguments.begin(), arguments.end());
  server_ = std::make_unique<ChildProcess>(
      at(lab_->inside("server", {}), "lunderhaze-rendezvous", all), environment_);
  ASSERT_TRUE(server_->wait_for_output("Listening on UDP port", seconds(20))) << server_->output();
}

void ReachTest::kill_server() {
  server_->signal(SIGKILL);
  server_->wait(seconds(10));
}

std::string ReachTest::stop_server() {
  server_->signal(SIGINT);
  EXPECT_EQ(server_->wait(seconds(10)), 0) << server_->output();
  return server_->output();
}

void ReachTest::launch_host(const std::vector<std::string>& more) {
  start_desktop(320, 240);
  screen_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{program("lunderhaze-testscreen")}, environment_);
  const RunResult added =
      run_program(at(host_place_, "lunderhaze", {"relays", "add", link()}), environment_);
  ASSERT_EQ(added.status, 0) << added.output;
  std::vector<std::string> all = {"--codec", "h264", "--console"};
  all.insert(all.end(), more.begin(), more.end());
  start_host(all);
}

void ReachTest::start_registered_host(const std::vector<std::string>& more) {
  launch_host(more);
  ASSERT_TRUE(host_->wait_for_output("registered with", seconds(20))) << host_->output();
}

void ReachTest::pair_at_home() {
  const RunResult paired = client({"pair", "--host", HOST_LAN, "--pin", shown_pin()});
  ASSERT_EQ(paired.status, 0) << paired.output;
  leave_home();
}

void ReachTest::plug_in_at_home() {
  lab_->set_link("client", "home", true);
}

void ReachTest::leave_home() {
  lab_->set_link("client", "home", false);
}

void ReachTest::connect(const std::string& path, const std::vector<std::string>& more) {
  std::vector<std::string> all = {"--relay", link(), "--path", path,
                                  "--fps",   "30",   "--out",  out().string()};
  all.insert(all.end(), more.begin(), more.end());
  launch_receiver(all);
  ASSERT_TRUE(receiver_->wait_for_output("path: ", seconds(20))) << receiver_->output();
}

void ReachTest::await_path(const std::string& path_class, std::size_t from) {
  ASSERT_TRUE(receiver_->wait_for_output("path: " + path_class + " ", seconds(20), from))
      << receiver_->output();
}

void ReachTest::await_lines(int lines) {
  for (int line = 0; line < lines; ++line)
    ASSERT_TRUE(receiver_->wait_for_output(" fps ", seconds(10), said())) << receiver_->output();
}

double ReachTest::logged_at(const std::string& text) const {
  const std::string& output = receiver_->output();
  const std::size_t at = output.rfind(text);
  const std::size_t begin = at == std::string::npos ? at : output.rfind('[', at);
  int hours = 0;
  int minutes = 0;
  double rest = 0;
  if (begin == std::string::npos ||
      std::sscanf(output.c_str() + begin, "[%d:%d:%lf]", &hours, &minutes, &rest) != 3)
    ADD_FAILURE() << "the client didn't log \"" << text << "\":\n" << output;
  return hours * 3600 + minutes * 60 + rest;
}

nlohmann::json ReachTest::end_stream() {
  receiver_->signal(SIGINT);
  EXPECT_EQ(receiver_->wait(seconds(20)), 0) << receiver_->output();
  return report();
}

std::string ReachTest::host_status() {
  const RunResult result = run_program(at(host_place_, "lunderhaze", {"status"}), environment_);
  EXPECT_EQ(result.status, 0) << result.output;
  return result.output;
}

std::string ReachTest::key_code() const {
  const std::string before = "key code ";
  const std::size_t at = host_->output().find(before);
  return at == std::string::npos ? "" : host_->output().substr(at + before.size(), 9);
}

}  // namespace system_test
