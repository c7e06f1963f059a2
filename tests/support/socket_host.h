// A host's engine on a real UDP socket of this computer, driven by a thread of its own, with a
// script for the packets that it opens and for the questions of LAN discovery. Constructed, it
// listens; destroyed, it is gone.
#pragma once

#include <atomic>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "connection/conn_host.h"
#include "connection/protocol.h"

class SocketHost {
 public:
  using Bytes = std::vector<std::uint8_t>;
  // Gives the plain packet to answer with, or none. Runs on the host's thread.
  using Script = std::function<Bytes(const Bytes& packet)>;

  SocketHost(const lund_keypair& identity, const char* name, Script script = nullptr)
      : script_(std::move(script)) {
    lund_net_init();
    lund_rv_endpoint loopback;
    lund_addr_parse_ip(&loopback, "127.0.0.1");
    socket_ = lund_udp_open(4, &loopback, 0);
    lund_addr_parse(&address_, "127.0.0.1", lund_udp_local_port(socket_));
    lund_host_config config;
    config.identity = identity;
    config.name = name;
    config.send = [](void* user, const lund_rv_endpoint* to, const std::uint8_t* bytes,
                     std::size_t size) {
      lund_udp_send(*static_cast<lund_socket*>(user), *to, bytes, size);
    };
    config.user = &socket_;
    engine_ = lund_host_create(&config, nullptr, nullptr);
    thread_ = std::thread([this] { run(); });
  }
  ~SocketHost() {
    leave_ = true;
    thread_.join();
    lund_host_destroy(engine_);
    lund_udp_close(socket_);
  }
  SocketHost(const SocketHost&) = delete;
  SocketHost& operator=(const SocketHost&) = delete;

  const lund_rv_endpoint& address() const { return address_; }
  lund_host* engine() { return engine_; }
  std::string pin() {
    lund_pairing_status status;
    lund_host_pairing_status(engine_, &status);
    return status.pin;
  }
  // What it answers to DISCOVER from now on; without a name: nothing.
  void be_discoverable(std::uint32_t lan_id, std::string name) {
    const std::lock_guard lock(mutex_);
    lan_id_ = lan_id;
    lan_name_ = std::move(name);
  }
  int questions() const { return questions_; }  // of discovery, so far

 private:
  void run() {
    while (!leave_) {
      const std::uint64_t wait_us = lund_host_tick(engine_);
      if (lund_udp_wait(&socket_, 1, static_cast<int>(wait_us / 1000) + 1) > 0) receive();
    }
  }
  void receive() {
    std::uint8_t datagram[2048];
    std::uint8_t opened[2048];
    lund_rv_endpoint from;
    for (int size; (size = lund_udp_recv(socket_, datagram, sizeof datagram, &from)) >= 0;) {
      std::size_t opened_size = 0;
      lund_rx_info info;
      const int result = lund_host_receive(engine_, datagram, static_cast<std::size_t>(size), from,
                                           opened, sizeof opened, &opened_size, &info);
      if (result == LUND_RX_PLAIN) answer_discover(datagram, static_cast<std::size_t>(size), from);
      if (result != LUND_RX_OPENED || !script_) continue;
      const Bytes answer = script_(Bytes(opened, opened + opened_size));
      if (!answer.empty()) send(info.session_id, answer);
    }
  }
  void send(std::uint32_t session_id, const Bytes& plain) {
    std::uint8_t sealed[2048];
    lund_rv_endpoint peer;
    const std::size_t size = lund_host_seal(engine_, session_id, plain.data(), plain.size(), sealed,
                                            sizeof sealed, &peer);
    if (size != 0) lund_udp_send(socket_, peer, sealed, size);
  }
  void answer_discover(const std::uint8_t* datagram, std::size_t size,
                       const lund_rv_endpoint& from) {
    lund_discover question;
    if (lund_decode_discover(datagram, size, &question) != 0) return;
    ++questions_;
    const std::lock_guard lock(mutex_);
    if (lan_name_.empty()) return;
    lund_discover_reply reply;
    reply.nonce = question.nonce;
    reply.lan_id = lan_id_;
    reply.port = address_.port;
    const lund_packet_header header;
    std::uint8_t packet[128];
    const std::size_t packet_size =
        lund_encode_discover_reply(packet, sizeof packet, &header, &reply, lan_name_.c_str());
    lund_udp_send(socket_, from, packet, packet_size);
  }

  Script script_;
  lund_socket socket_ = LUND_NO_SOCKET;
  lund_rv_endpoint address_;
  lund_host* engine_ = nullptr;
  std::atomic<int> questions_{0};
  std::mutex mutex_;  // guards what discovery tells
  std::uint32_t lan_id_ = 0;
  std::string lan_name_;
  std::atomic<bool> leave_{false};
  std::thread thread_;
};
