// Network adapters as the system lists them, and what of them is shown. The list is the platform's;
// the rest is pure.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "control/sysinfo.h"

// One IPv4 address of an adapter.
struct Adapter {
  std::uint32_t address = 0;  // network byte order, as the mask
  std::uint32_t mask = 0;
  std::string name;  // what a person calls it; may be empty
  bool up = false;
  bool loopback = false;
  bool ethernet = false;
  bool wifi = false;
};

std::vector<Adapter> system_adapters();  // in the system's order; empty on failure

// Those that others can reach: up, no loopback, no link-local address.
std::vector<Adapter> reachable_adapters(const std::vector<Adapter>& adapters);

// "192.168.1.5 (eth0)" each, Ethernet first, then Wi-Fi, then the rest, otherwise in their order.
std::vector<std::string> ranked_address_texts(std::vector<Adapter> adapters);

std::string ipv4_text(std::uint32_t address);  // "192.168.1.5", from network byte order

// A host id as it is stored: decimal digits of 1 to 0xFFFFFFFF, then nothing but characters of
// `trailing`. 0 for anything else.
std::uint32_t parse_host_id(const std::string& text, const char* trailing);
