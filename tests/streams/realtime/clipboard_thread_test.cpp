// Engines with their own threads: two over a pipe within the program that loses and reorders, and
// what may happen to one from several sides at once.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "streams/clipboard.h"
#include "tests/support/seeded_random.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t SESSION = 0x11223344;
constexpr std::uint64_t MTU = 1'376;
constexpr auto PATIENCE = 60s;  // for other threads to come along

// One direction: packets queue for a thread of the pipe's own, which hands on what isn't lost.
class Pipe {
 public:
  Pipe(std::uint64_t seed, double loss, double late) : random_(seed), loss_(loss), late_(late) {}
  ~Pipe() { stop(); }

  void start(std::function<void(const Bytes&)> receive) {
    receive_ = std::move(receive);
    thread_ = std::thread([this] { run(); });
  }
  void stop() {  // joins: nothing is received any more
    {
      const std::scoped_lock held(lock_);
      stopped_ = true;
    }
    came_.notify_one();
    if (thread_.joinable()) thread_.join();
  }
  void send(const std::uint8_t* packet, std::uint64_t length) {
    const std::scoped_lock held(lock_);
    if (random_.chance(loss_)) return;
    queue_.emplace_back(packet, packet + length);
    if (queue_.size() > 1 && random_.chance(late_)) std::swap(queue_.back(), queue_.front());
    came_.notify_one();
  }

 private:
  void run() {
    std::unique_lock held(lock_);
    for (;;) {
      came_.wait(held, [this] { return stopped_ || !queue_.empty(); });
      if (stopped_) return;
      const Bytes packet = std::move(queue_.front());
      queue_.pop_front();
      held.unlock();
      receive_(packet);
      held.lock();
    }
  }

  std::mutex lock_;
  std::condition_variable came_;
  SeededRandom random_;
  const double loss_, late_;
  std::deque<Bytes> queue_;
  bool stopped_ = false;
  std::function<void(const Bytes&)> receive_;
  std::thread thread_;
};

// An engine whose packets go into a pipe, or nowhere.
class Engine {
 public:
  struct Item {
    std::uint32_t id;
    Bytes bytes;
  };

  explicit Engine(Pipe* out, std::uint32_t rate = 0) : out_(out) {
    const lund_clip_config config{
        .send = on_send, .on_data = on_item, .log = on_log, .user = this, .rate = rate};
    clip = lund_clip_create(&config);
    lund_clip_set_session(clip, SESSION, MTU);
  }
  ~Engine() { destroy(); }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  void destroy() { lund_clip_destroy(std::exchange(clip, nullptr)); }
  std::uint32_t offer(const Bytes& item, std::uint8_t kind = LUND_CLIP_PNG) {
    return lund_clip_offer(clip, kind, item.data(), item.size());
  }
  void receive(const Bytes& packet) {
    EXPECT_EQ(lund_clip_receive(clip, packet.data(), packet.size()), 1);
  }

  bool wait_for(const std::function<bool()>& done) {  // `done` is asked with the lock held
    std::unique_lock held(lock);
    return came_.wait_for(held, PATIENCE, done);
  }
  bool wait_for_line(const std::string& part) {
    return wait_for([&] { return logged(part) > 0; });
  }
  // The lock must be held, as for the two lists.
  int logged(const std::string& part) const {
    return static_cast<int>(std::ranges::count_if(
        log, [&](const std::string& line) { return line.find(part) != std::string::npos; }));
  }

  lund_clip* clip = nullptr;
  std::atomic<int> sent = 0;
  std::mutex lock;
  std::vector<Item> items;
  std::vector<std::string> log;

 private:
  static void on_send(void* user, const std::uint8_t* packet, std::uint64_t length) {
    Engine& engine = *static_cast<Engine*>(user);
    if (engine.out_ != nullptr) engine.out_->send(packet, length);
    if (++engine.sent == 1) {  // whoever waits for the first
      const std::scoped_lock held(engine.lock);
      engine.came_.notify_all();
    }
  }
  static void on_item(void* user, std::uint32_t id, std::uint8_t, std::uint8_t* data,
                      std::uint64_t size) {
    Engine& engine = *static_cast<Engine*>(user);
    const std::scoped_lock held(engine.lock);
    engine.items.push_back({id, Bytes(data, data + size)});
    lund_clip_free(data);
    engine.came_.notify_all();
  }
  static void on_log(void* user, const char* text) {
    Engine& engine = *static_cast<Engine*>(user);
    const std::scoped_lock held(engine.lock);
    engine.log.emplace_back(text);
    engine.came_.notify_all();
  }

  Pipe* const out_;
  std::condition_variable came_;
};

// Two engines and the pipes between them; nothing moves any more once it is being taken apart.
class ClipboardThread : public testing::Test {
 protected:
  ClipboardThread() {
    ab.start([this](const Bytes& packet) { b.receive(packet); });
    ba.start([this](const Bytes& packet) { a.receive(packet); });
  }
  ~ClipboardThread() override {
    ab.stop();
    ba.stop();
  }

  Pipe ab{1, 0.1, 0.1}, ba{2, 0.1, 0.1};
  Engine a{&ab, 20'000'000}, b{&ba, 20'000'000};
};

Bytes random_item(std::size_t size, std::uint64_t seed) {
  SeededRandom random(seed);
  Bytes item(size);
  for (std::uint8_t& byte : item) byte = static_cast<std::uint8_t>(random.next());
  return item;
}

TEST_F(ClipboardThread, ItemsPassBothWaysOverALossyPipe) {
  const Bytes there = random_item(400'000, 1), back = random_item(300'000, 2);
  ASSERT_NE(a.offer(there), 0u);
  ASSERT_TRUE(b.wait_for([&] { return !b.items.empty(); }));
  ASSERT_TRUE(a.wait_for_line("delivered"));
  ASSERT_NE(b.offer(back), 0u);
  ASSERT_TRUE(a.wait_for([&] { return !a.items.empty(); }));
  ASSERT_TRUE(b.wait_for_line("delivered"));
  const std::scoped_lock held(a.lock, b.lock);
  EXPECT_TRUE(b.items[0].bytes == there);
  EXPECT_TRUE(a.items[0].bytes == back);
}

TEST_F(ClipboardThread, OfManyOffersTheLastArrives) {
  Bytes item;
  std::uint32_t id = 0;
  for (std::uint64_t i = 0; i < 200; ++i) {
    item = random_item(50'000 + 100 * i, i);
    id = a.offer(item);
    ASSERT_EQ(id, i + 1);
  }
  ASSERT_TRUE(b.wait_for([&] { return !b.items.empty() && b.items.back().id == id; }));
  ASSERT_TRUE(a.wait_for_line("#200 PNG, 69900 B delivered"));
  const std::scoped_lock held(a.lock, b.lock);
  EXPECT_TRUE(b.items.back().bytes == item);
  EXPECT_EQ(a.logged("superseded") + a.logged("delivered"), 200);
}

TEST_F(ClipboardThread, OffersOfSeveralThreadsEachHaveAnIdOfTheirOwn) {
  std::vector<std::thread> threads;
  std::mutex lock;
  std::vector<std::uint32_t> ids;
  for (std::uint64_t t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 25; ++i) {
        const std::uint32_t id = a.offer(random_item(20'000, t));
        const std::scoped_lock held(lock);
        ids.push_back(id);
      }
    });
  for (std::thread& thread : threads) thread.join();
  std::ranges::sort(ids);
  for (std::uint32_t i = 0; i < 100; ++i) EXPECT_EQ(ids[i], i + 1);
  ASSERT_TRUE(b.wait_for([&] { return !b.items.empty() && b.items.back().id == 100; }));
}

TEST_F(ClipboardThread, SessionsChangeInMidTransferAndTheNextItemPasses) {
  for (std::uint64_t i = 0; i < 50; ++i) {
    a.offer(random_item(200'000, i));
    lund_clip_set_session(a.clip, SESSION, MTU - i);
  }
  const Bytes last = random_item(100'000, 99);
  const std::uint32_t id = a.offer(last);
  ASSERT_TRUE(b.wait_for([&] { return !b.items.empty() && b.items.back().id == id; }));
  const std::scoped_lock held(a.lock, b.lock);
  EXPECT_TRUE(b.items.back().bytes == last);
  EXPECT_EQ(a.logged("dropped (session changed)"), 49) << "the first call changed nothing";
}

TEST(ClipboardLife, AnEngineIsDestroyedInMidTransferAndSendsNoMore) {
  std::vector<std::unique_ptr<Engine>> engines;
  std::vector<int> sent;
  for (int i = 0; i < 30; ++i) {
    Engine& engine = *engines.emplace_back(std::make_unique<Engine>(nullptr));
    ASSERT_NE(engine.offer(random_item(1'000'000, 1)), 0u);
    // Now before its first packet, now while its thread sleeps for more.
    if (i % 2 == 0) {
      ASSERT_TRUE(engine.wait_for([&] { return engine.sent > 0; }));
    }
    engine.destroy();
    sent.push_back(engine.sent);
  }
  for (std::size_t i = 0; i < engines.size(); ++i) EXPECT_EQ(engines[i]->sent, sent[i]);
}

TEST(ClipboardLife, AnIdleEngineIsDestroyedAtOnce) {
  for (int i = 0; i < 100; ++i) Engine engine(nullptr);
}

TEST(ClipboardLife, ASendThatBlocksHoldsUpNobodyElse) {
  struct Blocked {
    std::mutex lock;
    std::condition_variable changed;
    bool inside = false, released = false;
  } blocked;
  const lund_clip_config config{.send =
                                    [](void* user, const std::uint8_t*, std::uint64_t) {
                                      Blocked& b = *static_cast<Blocked*>(user);
                                      std::unique_lock held(b.lock);
                                      b.inside = true;
                                      b.changed.notify_all();
                                      b.changed.wait(held, [&] { return b.released; });
                                    },
                                .user = &blocked};
  lund_clip* clip = lund_clip_create(&config);
  ASSERT_NE(clip, nullptr);
  lund_clip_set_session(clip, SESSION, MTU);
  const Bytes item = random_item(1'000, 1);
  EXPECT_EQ(lund_clip_offer(clip, LUND_CLIP_PNG, item.data(), item.size()), 1u);
  {
    std::unique_lock held(blocked.lock);
    ASSERT_TRUE(blocked.changed.wait_for(held, PATIENCE, [&] { return blocked.inside; }));
  }
  // The worker is inside `send`; these must not wait for it.
  EXPECT_EQ(lund_clip_offer(clip, LUND_CLIP_PNG, item.data(), item.size()), 2u);
  lund_clip_set_session(clip, SESSION + 1, MTU);
  EXPECT_EQ(lund_clip_offer(clip, LUND_CLIP_PNG, item.data(), item.size()), 3u);
  {
    const std::scoped_lock held(blocked.lock);
    blocked.released = true;
    blocked.changed.notify_all();
  }
  lund_clip_destroy(clip);
}

// A host's packets come on its receiving thread while its setup thread changes the session and a
// person copies.
TEST(ClipboardLife, ReceivingOfferingAndSessionsFromThreeThreads) {
  Bytes packet = {0x50, 1, 12, 0, 0x44, 0x33, 0x22, 0x11, 1, 0, 0, 0, 2, 100, 0, 0, 0, 0, 0, 0, 0};
  packet.resize(21 + 50);
  Engine engine(nullptr);
  std::atomic<bool> stop = false;
  std::thread receiving([&] {
    for (std::uint32_t id = 1; !stop; ++id) {
      for (int byte = 0; byte < 4; ++byte)
        packet[static_cast<std::size_t>(8 + byte)] = static_cast<std::uint8_t>(id >> 8 * byte);
      for (const std::uint8_t offset : Bytes{0, 50}) {
        packet[17] = offset;
        engine.receive(packet);
      }
    }
  });
  std::thread sessions([&] {
    for (std::uint32_t i = 0; !stop; ++i)
      lund_clip_set_session(engine.clip, SESSION, 1'000 + i % 2);
  });
  for (std::uint64_t i = 0; i < 300; ++i) EXPECT_NE(engine.offer(random_item(5'000, i)), 0u);
  EXPECT_TRUE(engine.wait_for([&] { return !engine.items.empty(); }));
  stop = true;
  receiving.join();
  sessions.join();
}

}  // namespace
