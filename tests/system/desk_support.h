// What the tests of input and pointer share: a desktop, the host on it, and two kinds of client:
// the product's own, which does what its command line says and leaves, and a hand that stays,
// presses without letting go, and says what it is told. One thread.
#pragma once

#include "tests/system/system_support.h"
#include "tests/system/user_support.h"

namespace system_test {

// tests/system/hand: on a terminal of its own, where what is typed are commands.
class ClientHand {
 public:
  ClientHand(const std::vector<std::string>& command, const Environment& environment);

  // Waits for a line that holds this, among those not waited for yet; false when it doesn't come.
  bool says(const std::string& text);
  bool has_said(const std::string& text);  // the same, among all
  // Lines that begin so and hold this, of all that it has said.
  std::size_t count(const std::string& begin, const std::string& text = {}) const;
  // Gives a command without waiting, and then when the client was given it: lund_now_us.
  void tell(const std::string& command) { process_.type(command + "\n"); }
  std::uint64_t done_us();
  std::uint64_t act(const std::string& command);

  void kill();                 // at once, as a crash would
  std::optional<int> leave();  // its exit status
  const std::string& output() const { return process_.output(); }

 private:
  ChildProcess process_;
  std::size_t heard_ = 0;  // up to here
};

class DeskTest : public SystemTest {
 protected:
  // A monitor of the desktop, and where an action at a pixel of its stream belongs.
  struct Monitor {
    std::string name;
    int x = 0, y = 0, width = 0, height = 0;

    std::string at(int stream_x, int stream_y, int stream_width, int stream_height) const;
  };

  void TearDown() override;
  void prepare(int width, int height);  // a desktop, and a host that this client is paired with
  void serve(const std::vector<std::string>& host_arguments = {});  // the latter alone
  void end_key_repeat() const;                              // of a server that was started again
  void set_monitors(const std::vector<Monitor>& monitors);  // the first one has the output

  // The product's client, until it has done what the arguments say.
  void connect(std::vector<std::string> arguments);
  ClientHand& start_hand(int screens = 1, int width = 0);  // once all of them stream

  std::unique_ptr<ClientHand> hand_;
};

}  // namespace system_test
