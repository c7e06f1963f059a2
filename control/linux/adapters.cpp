#include "control/adapters.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>

#include <filesystem>
#include <fstream>
#include <memory>

namespace {

std::uint32_t ipv4_of(const sockaddr* address) {
  if (address == nullptr || address->sa_family != AF_INET) return 0;
  return reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr;
}

// A Wi-Fi device calls itself Ethernet too; what tells it apart is its radio.
void classify(Adapter* adapter) {
  // An additional address may carry a label, "eth0:1".
  const std::filesystem::path device =
      std::filesystem::path("/sys/class/net") / adapter->name.substr(0, adapter->name.find(':'));
  std::error_code error;
  adapter->wifi = std::filesystem::exists(device / "wireless", error) ||
                  std::filesystem::exists(device / "phy80211", error);
  int hardware = -1;
  std::ifstream(device / "type") >> hardware;
  adapter->ethernet = hardware == ARPHRD_ETHER && !adapter->wifi;
}

}  // namespace

std::vector<Adapter> system_adapters() {
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) return {};
  const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owner(list, freeifaddrs);
  std::vector<Adapter> adapters;
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) continue;
    Adapter adapter;
    adapter.address = ipv4_of(entry->ifa_addr);
    adapter.mask = ipv4_of(entry->ifa_netmask);
    adapter.name = entry->ifa_name;
    // Switched on, and with a carrier.
    adapter.up = (entry->ifa_flags & IFF_UP) != 0 && (entry->ifa_flags & IFF_RUNNING) != 0;
    adapter.loopback = (entry->ifa_flags & IFF_LOOPBACK) != 0;
    classify(&adapter);
    adapters.push_back(adapter);
  }
  return adapters;
}
