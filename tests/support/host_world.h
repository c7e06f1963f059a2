// A whole host without threads, on a fake computer and a fake socket, and clients made by hand that
// talk to it. For programs that link test_virtual_time, test_fake_udp and test_fake_resolver.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "connection/protocol.h"
#include "host/server.h"
#include "tests/support/engine_peer.h"
#include "tests/support/fake_platform.h"
#include "tests/support/fake_udp.h"
#include "tests/support/temporary_store.h"
#include "tests/support/virtual_time.h"

class HostWorld;

// One engine session of a client. Those of one client have the same seed, and so the same key.
class TestLink {
 public:
  TestLink(HostWorld& world, std::uint8_t seed, const char* address);

  bool connect();  // the handshake; the host's engine knows the session after the first packet
  void send(const peer::bytes& plain);
  void send_from(const char* address, const peer::bytes& plain);
  void hello(const lund_hello& hello = {});
  void ping();
  void bye() { send(peer::packet(LUND_PKT_BYE)); }
  void u32(std::uint8_t type, std::uint32_t value);
  void input(std::uint32_t seq, const std::vector<lund_input_event>& events);
  void mouse_abs(std::uint32_t seq, std::uint16_t x, std::uint16_t y);
  void rekey();

  // Everything that came on this session since the last call, opened, in order.
  std::vector<peer::bytes> receive();
  std::vector<peer::bytes> receive(std::uint8_t type);  // of one type; drops the others
  std::optional<lund_hello_ack> hello_ack();            // the only one
  // The largest sealed datagram that came since the last call of any of these.
  std::size_t largest_datagram();

  std::uint32_t id() const { return peer_.session.session_id; }
  std::string code() const;  // the client's key code
  std::string key() const { return {peer_.keys.public_key, peer_.keys.public_key + LUND_KEY_SIZE}; }

 private:
  HostWorld& world_;
  engine_peer peer_;
  std::string address_;
  std::size_t seen_ = 0;
};

inline constexpr std::uint8_t LAPTOP = 11;  // seeds of the clients that the host knows
inline constexpr std::uint8_t TABLET = 12;
inline constexpr const char* LAPTOP_ADDRESS = "192.168.1.20:5000";

class HostWorld : public testing::Test {
 protected:
  HostWorld();
  ~HostWorld() override;

 public:
  // The host is made and opened at first use; options and platform may be changed until then.
  HostServer& host();
  void start_host() { static_cast<void>(host()); }

  TestLink link(std::uint8_t seed = LAPTOP, const char* address = LAPTOP_ADDRESS) {
    return {*this, seed, address};
  }
  TestLink connected(std::uint8_t seed = LAPTOP, const char* address = LAPTOP_ADDRESS);
  // What a HELLO is answered with once it has been set up.
  std::optional<lund_hello_ack> answer(TestLink& link, const lund_hello& hello = {});
  // A link whose HELLO has been set up; the HELLO_ACK is taken in.
  TestLink stream(const lund_hello& hello = {}, std::uint8_t seed = LAPTOP,
                  const char* address = LAPTOP_ADDRESS);
  std::shared_ptr<ScreenSession> session(const TestLink& link) {
    return host().find_session(link.id());
  }

  void setup();  // all queued HELLOs
  void deliver(const peer::bytes& datagram, const char* from, std::uint32_t destination = 0);
  void run_ms(std::uint64_t ms);  // ticks every 100 ms, as the tick thread does

  std::vector<std::string> log();        // the lines since the last call
  bool logged(const std::string& line);  // exactly this line, among those since the last call

  HostOptions options;
  FakePlatform platform;
  DisplayInfo initial_display;
  std::uint8_t host_key[LUND_KEY_SIZE] = {};

 private:
  TemporaryStore store_;
  std::unique_ptr<HostServer> host_;
  std::size_t log_seen_ = 0;

 protected:
  TemporaryStore& store() { return store_; }
  void drop_host() { host_.reset(); }
};

lund_hello hello_for(int screen);
lund_hello wants_virtual(int screen = 0);  // asks for a virtual display
