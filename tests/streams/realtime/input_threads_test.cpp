// Many threads at one injector, as the sessions' threads and the one that ends them are.
#include <gmock/gmock.h>

#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "streams/input.h"
#include "tests/support/fake_input_sink.h"

namespace {

TEST(InputThreads, EventsOfAllThreadsComeOneAtATimeAndInTheBooksOrder) {
  constexpr int THREADS = 4;
  constexpr int EVENTS = 3'000;
  constexpr std::uint16_t CHORD[] = {224, 226, 76};
  auto record = std::make_shared<InputRecord>();
  std::atomic<int> inside{0};
  std::atomic<int> collisions{0};
  record->on_call = [&] {
    if (++inside != 1) ++collisions;
    --inside;
  };
  InputInjector injector(std::make_unique<FakeInputSink>(record));
  injector.set_input_desktop_tracking(true);
  std::atomic<int> chords{0};
  injector.set_sas_handler([&] {
    ++chords;
    injector.mouse_wheel(0, 120);  // may come back in
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < THREADS; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < EVENTS; ++i) {
        const auto usage = static_cast<std::uint16_t>(4 + t);
        injector.key(usage, true);
        injector.mouse_rel({0, 0, 100, 100, 100, 100}, 1, t);
        injector.key(usage, false);
        if (i % 100 == 0) injector.release_all();
        if (t == 0 && i % 50 == 0) {
          for (const std::uint16_t key : CHORD) injector.key(key, true);
          for (const std::uint16_t key : CHORD) injector.key(key, false);
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  injector.release_all();
  EXPECT_EQ(collisions, 0);
  EXPECT_GT(chords, 0);
  std::map<std::string, int> down;
  for (const std::string& call : record->calls) {
    if (!call.starts_with("key")) continue;
    const std::string key = call.substr(0, call.rfind(' '));
    down[key] += call.ends_with("down") ? 1 : -1;
    EXPECT_TRUE(down[key] == 0 || down[key] == 1) << call;
  }
  for (const auto& [key, count] : down) EXPECT_EQ(count, 0) << key;
}

}  // namespace
