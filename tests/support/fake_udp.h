// The host's socket as a list: what is sent ends here, and nothing ever arrives by itself. Linking
// the object library test_fake_udp puts it in place of the platform's socket. For one host at a
// time, without threads.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "connection/netsock.h"

struct FakeDatagram {
  std::vector<std::uint8_t> bytes;
  lund_rv_endpoint to;
  std::uint32_t source_ip = 0;
};

struct FakeUdp {
  bool is_open = false;
  bool open_fails = false;
  bool sends_fail = false;
  bool keeps = true;  // off: sends are only counted, and nothing is allocated
  std::uint64_t count = 0;
  std::vector<FakeDatagram> sent;
  std::optional<lund_rv_endpoint> marked;  // the peer whose traffic is marked
  int marks = 0;                           // how often one was set
};

FakeUdp& fake_udp();
void fake_udp_reset();
