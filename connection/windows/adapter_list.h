// The network adapters of this computer with their IPv4 addresses, as Windows lists them.
// Stateless; any thread.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>
// clang-format off
#include <iphlpapi.h>
// clang-format on

#include <cstddef>
#include <vector>

// The first of the list, which lies in `buffer`; null when it can't be had. `first_bytes` is what
// is offered at first: the list may need more.
const IP_ADAPTER_ADDRESSES* read_adapters(std::vector<std::max_align_t>& buffer, ULONG first_bytes);
