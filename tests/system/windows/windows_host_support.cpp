#include "tests/system/windows/windows_host_support.h"

#include <signal.h>

#include "connection/netsock.h"
#include "tests/support/temp_directory.h"

namespace system_test {

namespace {

bool is_free(int port) {
  const lund_socket socket = lund_udp_open(4, nullptr, static_cast<std::uint16_t>(port));
  if (socket == LUND_NO_SOCKET) return false;
  lund_udp_close(socket);
  return true;
}

}  // namespace

std::unique_ptr<WineDesk> WindowsHostTest::desk_;
std::string WindowsHostTest::missing_;
int WindowsHostTest::port_of_suite_ = 0;

void WindowsHostTest::open_desk(WineDesk::Options options) {
  missing_ = WineDesk::missing(options);
  if (!missing_.empty()) return;
  desk_ = std::make_unique<WineDesk>(options);
  port_of_suite_ = free_port();
}

void WindowsHostTest::TearDownTestSuite() {
  desk_.reset();
}

void WindowsHostTest::SetUp() {
  if (!missing_.empty()) GTEST_SKIP() << missing_;
  ASSERT_TRUE(has_desk());
  SystemTest::SetUp();
  port_ = port_of_suite_;  // so that the client finds the host that it knows
  painter_ = std::make_unique<RootPainter>(desk_->display());
}

void WindowsHostTest::TearDown() {
  if (!has_desk()) return;
  if (HasFailure()) {
    if (receiver_) ADD_FAILURE() << "the client said:\n" << receiver_->output();
    for (const auto& program : opened_) ADD_FAILURE() << "a program said:\n" << program->output();
  }
  for (const auto& program : opened_) end(program.get());
  opened_.clear();
  if (host_) {
    EXPECT_EQ(end(host_.get()), 0) << host_->output();
  }
  SystemTest::TearDown();
}

std::optional<int> WindowsHostTest::end(ChildProcess* program) {
  program->signal(SIGINT);
  const auto status = program->wait(seconds(20));
  EXPECT_TRUE(status.has_value()) << "Ctrl+C ends nothing; it said:\n" << program->output();
  return status;
}

std::string WindowsHostTest::host_log() const {
  std::string log;
  for (const auto& user : std::filesystem::directory_iterator(desk_->drive_c() / "users"))
    log += file_content(user.path() / "AppData" / "Local" / "Lunderhaze" / "host.log");
  return log;
}

void WindowsHostTest::serve(const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {"--port", std::to_string(port_), "--codec", "h264"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  ASSERT_TRUE(comes_true([&] { return is_free(port_); })) << "the former host's socket is left";
  host_ = desk_->start("lunderhaze.exe", all);
  ASSERT_TRUE(host_->wait_for_output("Listening on UDP port", seconds(30))) << host_->output();
  if (std::filesystem::exists(paired_store())) {
    std::filesystem::copy(paired_store(), directory_ / "client",
                          std::filesystem::copy_options::recursive);
    return;
  }
  pair();
  std::filesystem::copy(directory_ / "client", paired_store(),
                        std::filesystem::copy_options::recursive);
}

ChildProcess& WindowsHostTest::open(const std::string& name,
                                    const std::vector<std::string>& arguments,
                                    const std::string& says) {
  opened_.push_back(desk_->start(name, arguments));
  ChildProcess& program = *opened_.back();
  EXPECT_TRUE(program.wait_for_output(says, seconds(30))) << program.output();
  return program;
}

}  // namespace system_test
