#include "control/adapters.h"

#include "connection/windows/adapter_list.h"
#include "control/windows/wide_text.h"

namespace {

constexpr ULONG FIRST_BYTES = 16'384;

std::uint32_t mask_of(UINT8 prefix_bits) {
  ULONG mask = 0;
  return ConvertLengthToIpv4Mask(prefix_bits, &mask) == NO_ERROR ? mask : 0;
}

}  // namespace

std::vector<Adapter> system_adapters() {
  std::vector<std::max_align_t> buffer;
  std::vector<Adapter> adapters;
  for (const auto* entry = read_adapters(buffer, FIRST_BYTES); entry != nullptr;
       entry = entry->Next) {
    Adapter adapter;
    if (entry->FriendlyName != nullptr) adapter.name = to_utf8(entry->FriendlyName);
    adapter.up = entry->OperStatus == IfOperStatusUp;
    adapter.loopback = entry->IfType == IF_TYPE_SOFTWARE_LOOPBACK;
    adapter.ethernet = entry->IfType == IF_TYPE_ETHERNET_CSMACD;
    adapter.wifi = entry->IfType == IF_TYPE_IEEE80211;
    for (const auto* one = entry->FirstUnicastAddress; one != nullptr; one = one->Next) {
      const sockaddr* const address = one->Address.lpSockaddr;
      if (address->sa_family != AF_INET) continue;
      adapter.address = reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr;
      adapter.mask = mask_of(one->OnLinkPrefixLength);
      adapters.push_back(adapter);
    }
  }
  return adapters;
}
