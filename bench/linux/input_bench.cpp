// From an input event of a client to the X server's event at another of its clients: through the
// injector, with and without its watch over the input desktop, and beside it the bare request
// without any layer of ours. The counters are in microseconds.
#include <benchmark/benchmark.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <vector>

#include "bench/linux/x_server.h"
#include "connection/clock.h"
#include "streams/input.h"
#include "streams/linux/xtest_sink.h"

namespace {

constexpr InputTarget SCREEN{0, 0, 1280, 720, 1280, 720};
constexpr std::uint16_t KEY_A = 0x04;
constexpr std::uint8_t KEYCODE_A = 38;

class Watcher {
 public:
  explicit Watcher(const Server& server) : server_(server) {
    const std::uint32_t events =
        XCB_EVENT_MASK_KEY_PRESS | XCB_EVENT_MASK_KEY_RELEASE | XCB_EVENT_MASK_POINTER_MOTION;
    xcb_change_window_attributes(server.connection(), server.root(), XCB_CW_EVENT_MASK, &events);
    server.wait();
  }
  bool wait_for(int type) {
    for (;;) {
      xcb_generic_event_t* event = xcb_wait_for_event(server_.connection());
      if (!event) return false;
      const bool found = (event->response_type & 0x7F) == type;
      std::free(event);
      if (found) return true;
    }
  }

 private:
  const Server& server_;
};

// `play` causes one event, of one type in even turns and of another in odd ones.
template <typename Play>
void measure(benchmark::State& state, Watcher& watcher, int even_type, int odd_type, Play play) {
  std::vector<double> us;
  us.reserve(1 << 20);
  int turn = 0;
  for (auto _ : state) {
    const std::uint64_t start_ns = lund_now_ns();
    play(turn);
    if (!watcher.wait_for(turn % 2 == 0 ? even_type : odd_type))
      return state.SkipWithError("the server has gone");
    us.push_back(static_cast<double>(lund_now_ns() - start_ns) / 1e3);
    ++turn;
  }
  std::ranges::sort(us);
  const auto percentile = [&](double p) {
    return us[static_cast<std::size_t>(p * static_cast<double>(us.size() - 1))];
  };
  state.counters["p50_us"] = percentile(0.50);
  state.counters["p95_us"] = percentile(0.95);
}

template <typename Play>
void injected(benchmark::State& state, bool tracking, int even_type, int odd_type, Play play) {
  Server server;
  if (!server.ok()) return state.SkipWithError("no Xvfb");
  Watcher watcher(server);
  InputInjector injector(make_xtest_sink());
  injector.set_input_desktop_tracking(tracking);
  measure(state, watcher, even_type, odd_type, [&](int turn) { play(injector, turn % 2 == 0); });
}

void injected_motion(benchmark::State& state, bool tracking) {
  injected(state, tracking, XCB_MOTION_NOTIFY, XCB_MOTION_NOTIFY,
           [](InputInjector& injector, bool even) {
             injector.mouse_abs(SCREEN, even ? 10'000 : 20'000, 30'000);
           });
}

void injected_key(benchmark::State& state) {
  injected(state, true, XCB_KEY_PRESS, XCB_KEY_RELEASE,
           [](InputInjector& injector, bool even) { injector.key(KEY_A, even); });
}

// A connection of its own, as the injector has one.
template <typename Fake>
void bare(benchmark::State& state, int even_type, int odd_type, Fake fake) {
  Server server;
  if (!server.ok()) return state.SkipWithError("no Xvfb");
  Watcher watcher(server);
  xcb_connection_t* connection = xcb_connect(nullptr, nullptr);
  std::free(
      xcb_test_get_version_reply(connection, xcb_test_get_version(connection, 2, 2), nullptr));
  measure(state, watcher, even_type, odd_type, [&](int turn) {
    fake(connection, server.root(), turn % 2 == 0);
    xcb_flush(connection);
  });
  xcb_disconnect(connection);
}

void bare_motion(benchmark::State& state) {
  bare(state, XCB_MOTION_NOTIFY, XCB_MOTION_NOTIFY,
       [](xcb_connection_t* connection, xcb_window_t root, bool even) {
         xcb_test_fake_input(connection, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, root,
                             even ? 195 : 390, 329, 0);
       });
}

void bare_key(benchmark::State& state) {
  bare(state, XCB_KEY_PRESS, XCB_KEY_RELEASE,
       [](xcb_connection_t* connection, xcb_window_t, bool even) {
         xcb_test_fake_input(connection, even ? XCB_KEY_PRESS : XCB_KEY_RELEASE, KEYCODE_A,
                             XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
       });
}

BENCHMARK_CAPTURE(injected_motion, tracking, true)->UseRealTime();
BENCHMARK_CAPTURE(injected_motion, not_tracking, false)->UseRealTime();
BENCHMARK(bare_motion)->UseRealTime();
BENCHMARK(injected_key)->UseRealTime();
BENCHMARK(bare_key)->UseRealTime();

}  // namespace
