#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "connection/netsock.h"
#include "control/adapters.h"
#include "control/sysinfo.h"
#include "control/sysinfo_platform.h"
#include "control/windows/handles.h"

namespace {

TEST(WindowsAdapters, TheLoopbackIsListedWithItsMaskAndNotReachable) {
  const std::vector<Adapter> adapters = system_adapters();
  const auto loopback = std::ranges::find_if(adapters, &Adapter::loopback);
  ASSERT_NE(loopback, adapters.end());
  EXPECT_EQ(ipv4_text(loopback->address), "127.0.0.1");
  EXPECT_EQ(ipv4_text(loopback->mask), "255.0.0.0");
  EXPECT_FALSE(loopback->ethernet);
  EXPECT_FALSE(loopback->wifi);
  EXPECT_TRUE(loopback->up);
  for (const Adapter& adapter : reachable_adapters(adapters)) EXPECT_FALSE(adapter.loopback);
}

TEST(WindowsAdapters, AreTheAddressesThatPeersAreToldOf) {
  lund_rv_endpoint endpoints[16];
  const int count = lund_net_local_endpoints(endpoints, 16, 9876);
  EXPECT_EQ(reachable_adapters(system_adapters()).size(), static_cast<std::size_t>(count));
  for (const Adapter& adapter : reachable_adapters(system_adapters())) {
    EXPECT_TRUE(std::any_of(endpoints, endpoints + count, [&](const lund_rv_endpoint& endpoint) {
      return std::memcmp(endpoint.address.data(), &adapter.address, sizeof(adapter.address)) == 0;
    })) << ipv4_text(adapter.address);
  }
}

TEST(WindowsComputer, HasTheNameThatTheSystemGivesIt) {
  const wchar_t* const name = _wgetenv(L"COMPUTERNAME");
  ASSERT_NE(name, nullptr);
  // The older name is upper case and has 15 characters at most.
  std::string own = computer_name_utf8().substr(0, 15);
  std::ranges::transform(own, own.begin(), [](char one) {
    return one >= 'a' && one <= 'z' ? static_cast<char>(one - 'a' + 'A') : one;
  });
  EXPECT_EQ(std::filesystem::path(name).string(), own);
}

TEST(WindowsComputer, AProcessUsesProcessorTimeByWorking) {
  const std::uint64_t before = process_cpu_us();
  volatile unsigned sum = 0;
  while (process_cpu_us() == before) sum = sum + 1;
  EXPECT_GT(process_cpu_us(), before);
  EXPECT_EQ(sysinfo_platform::process_id(), GetCurrentProcessId());
}

}  // namespace
