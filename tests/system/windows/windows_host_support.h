// What the tests of the Windows host share: one Windows a suite, a host in it, and this computer's
// client towards it. One thread.
#pragma once

#include <string>
#include <vector>

#include "tests/system/system_support.h"
#include "tests/system/user_support.h"
#include "tests/system/windows/wine_support.h"

namespace system_test {

class WindowsHostTest : public SystemTest {
 protected:
  // A suite that needs another Windows has a SetUpTestSuite of its own.
  static void SetUpTestSuite() { open_desk({}); }
  static void TearDownTestSuite();
  static void open_desk(WineDesk::Options options);
  static bool has_desk() { return desk_ && desk_->running(); }
  static const WineDesk& desk() { return *desk_; }

  void SetUp() override;
  void TearDown() override;
  std::string host_log() const override;  // of the whole suite's hosts

  // A host that this client is paired with: by its PIN, the first time.
  void serve(const std::vector<std::string>& arguments = {});
  // By Ctrl+C, its exit status. Of a program that is killed Wine may keep sockets and windows.
  static std::optional<int> end(ChildProcess* program);
  // A program of the desk's, once it has said this; it runs until the test's end.
  ChildProcess& open(const std::string& name, const std::vector<std::string>& arguments,
                     const std::string& says);

 private:
  static std::filesystem::path paired_store() { return desk_->drive_c() / "paired-client"; }

  static std::unique_ptr<WineDesk> desk_;
  static std::string missing_;
  static int port_of_suite_;
  std::vector<std::unique_ptr<ChildProcess>> opened_;
};

}  // namespace system_test
