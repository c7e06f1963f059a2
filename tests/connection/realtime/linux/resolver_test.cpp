// A computer that has no thread left to give.
#include "connection/resolver.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include "connection/resolver_internal.h"

TEST(Resolver, WithoutAThreadThereIsNoResolver) {
  lund_relay_config relays;
  const std::uint8_t key[] = {1};
  ASSERT_EQ(lund_relay_server_set(&relays.servers[0], "a.example", 9877, key, 1), 0);
  relays.count = 1;
  const auto start = [&] {
    return resolver_start(
        relays, [](const char*, std::uint16_t, lund_rv_endpoint*) { return -1; },
        [](const char*, std::uint16_t, const lund_rv_endpoint*) {});
  };
  pthread_attr_t usual, vast;
  ASSERT_EQ(pthread_getattr_default_np(&usual), 0);
  ASSERT_EQ(pthread_getattr_default_np(&vast), 0);
  // A stack larger than the address space: no thread can have it.
  ASSERT_EQ(pthread_attr_setstacksize(&vast, std::size_t{1} << 48), 0);
  ASSERT_EQ(pthread_setattr_default_np(&vast), 0);
  EXPECT_EQ(start(), nullptr);
  ASSERT_EQ(pthread_setattr_default_np(&usual), 0);
  pthread_attr_destroy(&usual);
  pthread_attr_destroy(&vast);
  lund_resolver* resolver = start();
  EXPECT_NE(resolver, nullptr);
  lund_resolver_stop(resolver);
}
