// From which local address a LAN discovery is answered. Pure.
#pragma once

#include <cstdint>
#include <vector>

#include "control/sysinfo.h"
#include "host/udp.h"

// The address that the datagram came to, if it is one of this computer's; else an interface in the
// sender's subnet, Ethernet preferred; else 0, which leaves it to the routing table.
std::uint32_t discover_source(const std::vector<LocalInterface>& interfaces, const Peer& peer);
