// The resolver's thread, with look-ups that a test holds up and an engine that a test takes away.
#include "connection/resolver.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "tests/connection/realtime/resolver_support.h"

namespace {

lund_rv_endpoint endpoint(const char* text) {
  lund_rv_endpoint out;
  EXPECT_EQ(lund_addr_parse(&out, text, 0), 0);
  return out;
}

int found_at_once(const char*, std::uint16_t, lund_rv_endpoint* out) {
  *out = endpoint("192.0.2.1:9877");
  return 0;
}

// What the resolver's thread says, for the test's to wait for: "name:port address" or "... -".
class Results {
 public:
  ResolverSink sink() {
    return [this](const char* name, std::uint16_t port, const lund_rv_endpoint* found) {
      char address[LUND_ADDR_TEXT] = "-";
      if (found != nullptr) lund_addr_format(address, sizeof address, *found);
      const std::scoped_lock held(lock_);
      lines_.push_back(std::string(name) + ":" + std::to_string(port) + " " + address);
      came_.notify_all();
    };
  }
  std::vector<std::string> wait_for(std::size_t count) {
    std::unique_lock held(lock_);
    came_.wait_for(held, PATIENCE, [&] { return lines_.size() >= count; });
    return lines_;
  }

 private:
  std::mutex lock_;
  std::condition_variable came_;
  std::vector<std::string> lines_;
};

}  // namespace

TEST(Resolver, EachNameIsLookedUpAndToldWithItsPort) {
  Results results;
  const lund_relay_config relays = relays_of({"a.example", "192.0.2.7", "b.example"});
  lund_resolver* resolver = resolver_start(
      relays,
      [](const char* name, std::uint16_t port, lund_rv_endpoint* out) {
        EXPECT_EQ(port, 9877);
        return name[0] == 'a' ? found_at_once(name, port, out) : -1;
      },
      results.sink());
  ASSERT_NE(resolver, nullptr);
  EXPECT_EQ(results.wait_for(2),
            (std::vector<std::string>{"a.example:9877 192.0.2.1:9877", "b.example:9877 -"}));
  lund_resolver_stop(resolver);
}

TEST(Resolver, ANameIsLookedUpAgainWhenItIsDue) {
  Results results;
  lund_resolver* resolver = resolver_start(
      relays_of({"a.example"}),
      [lookups = 0](const char* name, std::uint16_t port, lund_rv_endpoint* out) mutable {
        return ++lookups == 1 ? -1 : found_at_once(name, port, out);
      },
      results.sink(), {.after_success_us = 5'000, .after_failure_us = 5'000});
  const std::vector<std::string> told = results.wait_for(3);
  lund_resolver_stop(resolver);
  ASSERT_GE(told.size(), 3u);
  EXPECT_EQ(told[0], "a.example:9877 -");
  EXPECT_EQ(told[1], "a.example:9877 192.0.2.1:9877");
  EXPECT_EQ(told[2], "a.example:9877 192.0.2.1:9877");
}

TEST(Resolver, WithoutANameThereIsNoThread) {
  const ResolverSink none = [](const char*, std::uint16_t, const lund_rv_endpoint*) {};
  EXPECT_EQ(resolver_start(relays_of({}), found_at_once, none), nullptr);
  EXPECT_EQ(resolver_start(relays_of({"192.0.2.1", "[2001:db8::1]"}), found_at_once, none),
            nullptr);
  const lund_relay_config literals = relays_of({"192.0.2.1"});
  EXPECT_EQ(lund_resolver_start_host(nullptr, &literals), nullptr);
  EXPECT_EQ(lund_resolver_start_client(nullptr, &literals), nullptr);
  lund_resolver_stop(nullptr);
}

// The look-up ends only once stop has come back: were stop to wait for it, neither would.
TEST(Resolver, StopDuringALookupReturnsAtOnceAndItsResultIsThrownAway) {
  std::promise<void> entered, let_go;
  std::atomic<int> told{0};
  auto token = std::make_shared<int>();
  const std::weak_ptr<int> handle = token;
  lund_resolver* resolver = resolver_start(
      relays_of({"a.example", "b.example"}),
      [&](const char* name, std::uint16_t port, lund_rv_endpoint* out) {
        entered.set_value();
        let_go.get_future().wait();
        return found_at_once(name, port, out);
      },
      [&told, kept = std::move(token)](const char*, std::uint16_t, const lund_rv_endpoint*) {
        ++told;
      });
  ASSERT_EQ(entered.get_future().wait_for(PATIENCE), std::future_status::ready);
  lund_resolver_stop(resolver);
  EXPECT_FALSE(handle.expired());
  let_go.set_value();
  EXPECT_TRUE(soon([&] { return handle.expired(); }));
  EXPECT_EQ(told, 0);
}

TEST(Resolver, AStoppedThreadFreesItsHandleWithoutWaitingForTheNextLookup) {
  Results results;
  auto token = std::make_shared<int>();
  const std::weak_ptr<int> handle = token;
  lund_resolver* resolver =
      resolver_start(relays_of({"a.example"}), found_at_once,
                     [kept = std::move(token), sink = results.sink()](
                         const char* name, std::uint16_t port, const lund_rv_endpoint* found) {
                       sink(name, port, found);
                     });
  results.wait_for(1);
  lund_resolver_stop(resolver);  // the next look-up would be in 120 s
  EXPECT_TRUE(soon([&] { return handle.expired(); }));
}

// The engine is freed right after stop, and its count is neither atomic nor locked: the sanitizers
// see any call that comes too late, and an unordered one.
TEST(Resolver, NoEngineCallRunsOnceStopHasReturned) {
  struct Progress {
    std::atomic<bool> stopped{false};
    std::atomic<int> calls{0};
  };
  for (int round = 0; round < 1'000; ++round) {
    auto engine_calls = std::make_unique<int>(0);
    auto progress = std::make_shared<Progress>();
    lund_resolver* resolver =
        resolver_start(relays_of({"a.example", "b.example"}), found_at_once,
                       [engine = engine_calls.get(), progress](const char*, std::uint16_t,
                                                               const lund_rv_endpoint*) {
                         if (progress->stopped) std::abort();
                         ++*engine;
                         ++progress->calls;
                       },
                       {.after_success_us = 50, .after_failure_us = 50});
    ASSERT_NE(resolver, nullptr);
    // Some are stopped before their thread runs, some in its midst, some while it waits.
    const bool as_wanted = round % 8 != 0 || soon([&] { return progress->calls > 0; });
    ASSERT_TRUE(as_wanted);
    for (int i = 0; i < round % 64; ++i) std::this_thread::yield();
    lund_resolver_stop(resolver);
    progress->stopped = true;
    ASSERT_EQ(*engine_calls, progress->calls);
  }
}

TEST(Resolver, StopWaitsForAnEngineCallUnderWay) {
  std::promise<void> entered, let_go;
  std::atomic<bool> call_ended{false};
  std::atomic<int> calls{0};
  lund_resolver* resolver =
      resolver_start(relays_of({"a.example"}), found_at_once,
                     [&](const char*, std::uint16_t, const lund_rv_endpoint*) {
                       if (++calls != 1) return;
                       entered.set_value();
                       let_go.get_future().wait();
                       call_ended = true;
                     });
  ASSERT_EQ(entered.get_future().wait_for(PATIENCE), std::future_status::ready);
  std::thread releases([&] { let_go.set_value(); });
  lund_resolver_stop(resolver);
  EXPECT_TRUE(call_ended);
  releases.join();
}

// ---- With the engines

namespace {

void no_send(void*, const lund_rv_endpoint*, const std::uint8_t*, std::size_t) {}

}  // namespace

// By the system's own resolver; the name is given in another case than the engine has it.
TEST(Resolver, AHostLearnsWhereItsServerIs) {
  lund_host_config config;
  config.send = no_send;
  config.relays = relays_of({"localhost"});
  lund_host* host = lund_host_create(&config, nullptr, nullptr);
  ASSERT_NE(host, nullptr);
  const auto server = [&] {
    lund_server_status status;
    EXPECT_EQ(lund_host_server_status(host, 0, &status), 0);
    return status;
  };
  EXPECT_EQ(server().state, LUND_SERVER_RESOLVING);
  const lund_relay_config other_case = relays_of({"LOCALHOST"});
  lund_resolver* resolver = lund_resolver_start_host(host, &other_case);
  ASSERT_NE(resolver, nullptr);
  EXPECT_TRUE(soon([&] { return server().endpoint.family == 4; }));
  lund_resolver_stop(resolver);
  EXPECT_EQ(server().endpoint.address[0], 127);
  EXPECT_EQ(server().endpoint.port, 9877);
  lund_host_destroy(host);
}

TEST(Resolver, AClientLearnsWhereItsServerIs) {
  struct Log {
    std::mutex lock;
    std::string text;
  } said;
  lund_client_config config;
  config.send = no_send;
  config.log = [](void* user, const char* line) {
    Log& to = *static_cast<Log*>(user);
    const std::scoped_lock held(to.lock);
    to.text += line;
    to.text += '\n';
  };
  config.user = &said;
  config.relays = relays_of({"localhost"});
  lund_client* client = lund_client_create(&config);
  ASSERT_NE(client, nullptr);
  lund_resolver* resolver = lund_resolver_start_client(client, &config.relays);
  ASSERT_NE(resolver, nullptr);
  EXPECT_TRUE(soon([&] {
    const std::scoped_lock held(said.lock);
    return said.text.find("server localhost:9877 is at 127.") != std::string::npos;
  }));
  lund_resolver_stop(resolver);
  lund_client_destroy(client);
}

// The engine goes right after stop, whatever the resolver was about.
TEST(Resolver, AnEngineMayBeDestroyedAsSoonAsItsResolverIsStopped) {
  const lund_relay_config relays = relays_of({"localhost"});
  for (int round = 0; round < 200; ++round) {
    lund_host_config config;
    config.send = no_send;
    config.relays = relays;
    lund_host* host = lund_host_create(&config, nullptr, nullptr);
    ASSERT_NE(host, nullptr);
    lund_resolver* resolver = lund_resolver_start_host(host, &relays);
    for (int i = 0; i < round; ++i) std::this_thread::yield();
    lund_resolver_stop(resolver);
    lund_host_destroy(host);
  }
}
