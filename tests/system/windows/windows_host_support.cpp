#include "tests/system/windows/windows_host_support.h"

#include <fstream>

namespace system_test {

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
  ASSERT_TRUE(desk_ && desk_->running());
  SystemTest::SetUp();
  port_ = port_of_suite_;  // so that the client finds the host that it knows
  painter_ = std::make_unique<RootPainter>(desk_->display());
}

void WindowsHostTest::TearDown() {
  if (!desk_ || !desk_->running()) return;
  if (HasFailure()) {
    if (receiver_) ADD_FAILURE() << "the client said:\n" << receiver_->output();
    for (const auto& program : opened_) ADD_FAILURE() << "a program said:\n" << program->output();
  }
  opened_.clear();
  SystemTest::TearDown();
}

std::string WindowsHostTest::host_log() const {
  std::string log;
  for (const auto& user : std::filesystem::directory_iterator(desk_->drive_c() / "users")) {
    std::ifstream file(user.path() / "AppData" / "Local" / "Lunderhaze" / "host.log");
    log.append(std::istreambuf_iterator<char>(file), {});
  }
  return log;
}

void WindowsHostTest::serve(const std::vector<std::string>& arguments) {
  std::vector<std::string> all = {"--port", std::to_string(port_), "--codec", "h264"};
  all.insert(all.end(), arguments.begin(), arguments.end());
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
