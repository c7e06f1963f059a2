#include "connection/windows/adapter_list.h"

namespace {

constexpr int TRIES = 3;  // it may grow between being told its size and being read

}  // namespace

const IP_ADAPTER_ADDRESSES* read_adapters(std::vector<std::max_align_t>& buffer,
                                          ULONG first_bytes) {
  constexpr ULONG FLAGS =
      GAA_FLAG_SKIP_ANYCAST | GAA_FLAG_SKIP_MULTICAST | GAA_FLAG_SKIP_DNS_SERVER;
  ULONG bytes = first_bytes;
  for (int i = 0; i < TRIES; ++i) {
    buffer.resize(bytes / sizeof(std::max_align_t) + 1);
    auto* adapters = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buffer.data());
    const ULONG result = GetAdaptersAddresses(AF_INET, FLAGS, nullptr, adapters, &bytes);
    if (result == ERROR_SUCCESS) return adapters;
    if (result != ERROR_BUFFER_OVERFLOW) break;
  }
  return nullptr;
}
