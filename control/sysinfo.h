// Facts about this computer and small services around the host: directories, names, ids, network
// interfaces. Stateless apart from the files it names. app_data_dir follows the store's scope,
// which is to be configured first.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

std::filesystem::path app_data_dir();  // the user's Lunderhaze directory, created if missing
std::uint32_t random_u32();
std::string computer_name_utf8();
std::filesystem::path exe_path();

// Processor time that this process has used so far, all threads, user and system, microseconds.
std::uint64_t process_cpu_us();

// The number by which LAN discovery knows this machine, 1 to 0xFFFFFFFF: read from the file
// host_id, or drawn and written there.
std::uint32_t load_or_create_host_id();

struct LocalInterface {
  std::uint32_t address = 0;  // IPv4, network byte order
  std::uint32_t mask = 0;
  bool ethernet = false;
};

// IPv4 interfaces that are up, without loopback and 169.254/16, in the system's order.
std::vector<LocalInterface> local_ipv4_interfaces();

// "192.168.1.5 (eth0)", Ethernet first, then Wi-Fi, then the rest.
std::vector<std::string> lan_ipv4_addresses();
