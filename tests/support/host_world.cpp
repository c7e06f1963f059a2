#include "tests/support/host_world.h"

#include <algorithm>
#include <cstring>

#include "connection/byte_order.h"
#include "connection/lists.h"
#include "control/keystore.h"
#include "tests/support/fake_resolver.h"

lund_hello hello_for(int screen) {
  lund_hello hello;
  hello.screen = static_cast<std::uint8_t>(screen);
  return hello;
}

lund_hello wants_virtual(int screen) {
  lund_hello hello = hello_for(screen);
  hello.display_mode = 1;
  return hello;
}

// ---- The client

TestLink::TestLink(HostWorld& world, std::uint8_t seed, const char* address)
    : world_(world), peer_((world.start_host(), seed), world.host_key), address_(address) {}

bool TestLink::connect() {
  virtual_time::advance_ms(1);  // a later handshake has a later timestamp
  seen_ = fake_udp().sent.size();
  world_.deliver(peer_.hs_init(), address_.c_str());
  const bool answered = fake_udp().sent.size() == seen_ + 1;
  return answered && peer_.hs_finish(fake_udp().sent[seen_++].bytes);
}

void TestLink::send(const peer::bytes& plain) {
  send_from(address_.c_str(), plain);
}
void TestLink::send_from(const char* address, const peer::bytes& plain) {
  world_.deliver(peer_.seal(plain), address);
}

void TestLink::hello(const lund_hello& hello) {
  const lund_packet_header header;
  peer::bytes packet(64);
  packet.resize(lund_encode_hello(packet.data(), packet.size(), &header, &hello));
  send(packet);
}

void TestLink::ping() {
  const lund_packet_header header;
  const lund_ping ping{.seq = 1, .client_time_us = 42};
  peer::bytes packet(64);
  packet.resize(lund_encode_ping(packet.data(), packet.size(), &header, &ping));
  send(packet);
}

void TestLink::u32(std::uint8_t type, std::uint32_t value) {
  peer::bytes body(4);
  store_le(body.data(), value);
  send(peer::packet(type, 0, body));
}

void TestLink::input(std::uint32_t seq, const std::vector<lund_input_event>& events) {
  const lund_packet_header header;
  const lund_input_batch batch{seq, static_cast<std::uint8_t>(events.size()), events.data()};
  peer::bytes packet(1024);
  packet.resize(lund_encode_input(packet.data(), packet.size(), &header, &batch));
  send(packet);
}

void TestLink::mouse_abs(std::uint32_t seq, std::uint16_t x, std::uint16_t y) {
  const lund_packet_header header;
  peer::bytes packet(16);
  lund_encode_mouse_abs(packet.data(), packet.size(), &header, seq, x, y);
  send(packet);
}

std::string TestLink::code() const {
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, peer_.keys.public_key);
  return code;
}

std::vector<peer::bytes> TestLink::receive() {
  std::vector<peer::bytes> packets;
  for (; seen_ < fake_udp().sent.size(); ++seen_) {
    const peer::bytes& datagram = fake_udp().sent[seen_].bytes;
    if (datagram.size() < LUND_HEADER_SIZE || load_le<std::uint32_t>(datagram.data() + 4) != id())
      continue;
    if (auto plain = peer_.open(datagram)) packets.push_back(*plain);
  }
  return packets;
}

std::vector<peer::bytes> TestLink::receive(std::uint8_t type) {
  std::vector<peer::bytes> packets = receive();
  std::erase_if(packets, [&](const peer::bytes& packet) { return packet[2] != type; });
  return packets;
}

std::optional<lund_hello_ack> TestLink::hello_ack() {
  const std::vector<peer::bytes> acks = receive(LUND_PKT_HELLO_ACK);
  lund_hello_ack ack;
  if (acks.size() != 1 || lund_decode_hello_ack(acks[0].data(), acks[0].size(), &ack) != 0)
    return std::nullopt;
  return ack;
}

std::size_t TestLink::largest_datagram() {
  std::size_t largest = 0;
  for (std::size_t i = seen_; i < fake_udp().sent.size(); ++i)
    largest = std::max(largest, fake_udp().sent[i].bytes.size());
  receive();
  return largest;
}

// ---- The host

HostWorld::HostWorld() {
  virtual_time::reset();
  fake_udp_reset();
  fake_resolvers().clear();
  options.port = 9876;
  platform.add_display("DP-1", 0);
}

// A test's callbacks refer to its locals, which are gone by now; its sessions end only here.
HostWorld::~HostWorld() {
  if (host_) {
    host_->on_status_change = nullptr;
    host_->on_event = nullptr;
    host_->on_pair_back = nullptr;
  }
  host_.reset();
}

HostServer& HostWorld::host() {
  if (host_) return *host_;
  const lund_keypair identity = keystore::load_or_create_identity(nullptr);
  std::copy_n(identity.public_key, LUND_KEY_SIZE, host_key);
  lund_client_list clients;
  lund_client_list_add(&clients, peer::keypair_of(LAPTOP).public_key, "Laptop");
  lund_client_list_add(&clients, peer::keypair_of(TABLET).public_key, "Tablet");
  EXPECT_TRUE(keystore::save_clients(clients));
  host_ = std::make_unique<HostServer>(options, initial_display, platform.record());
  std::string error;
  EXPECT_TRUE(host_->open(&error)) << error;
  return *host_;
}

TestLink HostWorld::connected(std::uint8_t seed, const char* address) {
  TestLink made = link(seed, address);
  EXPECT_TRUE(made.connect());
  return made;
}

std::optional<lund_hello_ack> HostWorld::answer(TestLink& link, const lund_hello& hello) {
  link.hello(hello);
  setup();
  return link.hello_ack();
}

TestLink HostWorld::stream(const lund_hello& hello, std::uint8_t seed, const char* address) {
  TestLink made = connected(seed, address);
  const auto ack = answer(made, hello);
  EXPECT_TRUE(ack && ack->status == LUND_HELLO_ACCEPTED);
  return made;
}

void HostWorld::setup() {
  while (host().setup_step()) {
  }
}

void HostWorld::deliver(const peer::bytes& datagram, const char* from, std::uint32_t destination) {
  Peer sender;
  sender.address = peer::at(from);
  sender.source_ip = destination;
  host().handle(datagram.data(), datagram.size(), sender);
}

void HostWorld::run_ms(std::uint64_t ms) {
  for (std::uint64_t done = 0; done < ms; done += 100) {
    virtual_time::advance_ms(std::min<std::uint64_t>(100, ms - done));
    host().tick_step();
  }
}

std::vector<std::string> HostWorld::log() {
  std::vector<std::string> lines = store_.log_lines();
  lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(log_seen_));
  log_seen_ += lines.size();
  return lines;
}

bool HostWorld::logged(const std::string& line) {
  const std::vector<std::string> lines = log();
  if (std::ranges::find(lines, line) != lines.end()) return true;
  for (const std::string& other : lines) std::printf("      log: %s\n", other.c_str());
  return false;
}
