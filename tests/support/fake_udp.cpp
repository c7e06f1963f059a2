#include "tests/support/fake_udp.h"

#include "host/udp.h"

FakeUdp& fake_udp() {
  static FakeUdp udp;
  return udp;
}
void fake_udp_reset() {
  fake_udp() = {};
}

struct UdpSocket::Impl {};

UdpSocket::UdpSocket() = default;
UdpSocket::~UdpSocket() {
  close();
}

bool UdpSocket::open(std::uint16_t, std::string* error) {
  if (fake_udp().open_fails && error) *error = "bind failed (errno 98)";
  fake_udp().is_open = !fake_udp().open_fails;
  return fake_udp().is_open;
}
void UdpSocket::close() {
  qos_clear();
  fake_udp().is_open = false;
}
bool UdpSocket::is_open() const {
  return fake_udp().is_open;
}

int UdpSocket::recv(std::uint8_t*, int, Peer*) {
  return -1;
}
int UdpSocket::last_error() const {
  return 0;
}
bool UdpSocket::interrupted(int) {
  return false;
}
std::string UdpSocket::error_text(int error) {
  return "errno " + std::to_string(error);
}

bool UdpSocket::send(const void* data, std::uint64_t size, const lund_rv_endpoint& to) {
  return send_from(data, size, to, 0);
}
bool UdpSocket::send_from(const void* data, std::uint64_t size, const lund_rv_endpoint& to,
                          std::uint32_t source_ip) {
  FakeUdp& udp = fake_udp();
  if (!udp.is_open || udp.sends_fail) return false;
  ++udp.count;
  if (!udp.keeps) return true;
  const auto* bytes = static_cast<const std::uint8_t*>(data);
  udp.sent.push_back({{bytes, bytes + size}, to, source_ip});
  return true;
}

void UdpSocket::qos_set_peer(const lund_rv_endpoint& to) {
  fake_udp().marked = to;
  ++fake_udp().marks;
}
void UdpSocket::qos_clear() {
  fake_udp().marked.reset();
}
