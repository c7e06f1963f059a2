// Two ends of the clipboard on a simulated link, each stepped when it is due.
#pragma once

#include <cstdint>
#include <functional>

#include "tests/streams/clipboard_rig.h"
#include "tests/support/engine_pair.h"
#include "tests/support/netsim.h"

namespace clipboard_rig {

class SimulatedLink {
 public:
  // What the record, UDP and IPv4 put around a packet on the wire: 24, 8 and 20 bytes.
  static constexpr std::size_t AROUND = 52;

  SimulatedLink(std::uint64_t seed, const NetSim::Link& link, std::uint32_t rate = 0) : net(seed) {
    virtual_time::reset();
    const int network = net.add_network(link);
    for (const int i : {0, 1}) {
      Side& s = sides_[i];
      s.end.emplace(rate);
      s.address = endpoint(i == 0 ? "192.168.1.10:1000" : "192.168.1.20:1000");
      s.node = net.add_node(
          [this, i](const NetSim::Datagram& datagram) {
            const Bytes packet(datagram.bytes.begin() + AROUND, datagram.bytes.end());
            if (end(i).receive(packet) == 0 && other) other(i, packet);
            net.wake(sides_[i].node);
          },
          [this, i]() -> std::uint64_t {
            for (;;) {
              const auto wait = lund_clip_step(end(i).clip);
              if (!wait) return IDLE_US;
              if (*wait > 0) return *wait * std::uint64_t{1000};
            }
          });
      net.attach(s.node, network, s.address);
      s.end->wire = [this, i](const Bytes& packet) {
        if (tap) tap(i, packet);
        send(i, packet);
      };
    }
  }

  End& end(int side) { return *sides_[side].end; }
  std::uint32_t offer(int side, const Bytes& item, std::uint8_t kind = LUND_CLIP_PNG) {
    net.wake(sides_[side].node);
    return end(side).offer(item, kind);
  }
  void send(int side, const Bytes& packet) {
    Bytes wire(AROUND);
    wire.insert(wire.end(), packet.begin(), packet.end());
    net.send(sides_[side].node, sides_[1 - side].address, wire.data(), wire.size());
  }
  bool idle() { return end(0).idle() && end(1).idle(); }

  NetSim net;
  std::function<void(int side, const Bytes&)> tap;    // what the clipboard sends
  std::function<void(int side, const Bytes&)> other;  // what arrives and isn't the clipboard's

 private:
  static constexpr std::uint64_t IDLE_US = 1'000'000;
  struct Side {
    std::optional<End> end;
    lund_rv_endpoint address;
    int node = 0;
  };
  Side sides_[2];
};

}  // namespace clipboard_rig
