// What the tests of the clipboard share: a desktop with programs that copy and paste, the host on
// it, and clients that come, give, take and leave.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/clipboard_items.h"
#include "tests/support/linux/xclip.h"
#include "tests/system/system_support.h"

namespace system_test {

inline constexpr char PNG_TARGET[] = "image/png";

// How often a text stands in another.
std::size_t count_of(const std::string& text, const std::string& what);
std::string text_of(const std::vector<std::uint8_t>& bytes);

class ClipboardTest : public SystemTest {
 protected:
  void TearDown() override;

  // A desktop, and a host on it that this client is paired with.
  void prepare(int width = 640, int height = 480);
  void serve();  // the host alone, again

  // A client that stays and keeps what comes; from now on the host shares its clipboard with it.
  ChildProcess& join(const std::vector<std::string>& more = {});
  std::optional<int> leave();  // as Ctrl+C does; its exit status
  std::string kept() const;    // what came last to the client that has left

  // A client that gives the host's clipboard this and leaves once the host has answered.
  RunResult give(const std::string& content, std::vector<std::string> more = {});
  // The same, for what can't fail; and the host's desktop has it by then.
  void give_to_desktop(const std::string& content);
  // Copies on the host's desktop, and waits until the client has it.
  void copy_to_client(const std::string& content, const std::string& target = "UTF8_STRING");

  // Waits for a line of the program's that holds this, among those not waited for yet.
  bool host_says(const std::string& text, seconds deadline = seconds(10));
  bool client_says(const std::string& text, seconds deadline = seconds(10));
  std::size_t items_sent() const;  // by the hosts, as far as they have been listened to
  RunResult run_host(std::vector<std::string> arguments);

  std::unique_ptr<Xclip> desk_;

 private:
  std::filesystem::path kept_path() const { return directory_ / "kept"; }
  std::size_t host_heard_ = 0;  // up to here
  std::size_t client_heard_ = 0;
  std::size_t sent_by_former_hosts_ = 0;
};

}  // namespace system_test
