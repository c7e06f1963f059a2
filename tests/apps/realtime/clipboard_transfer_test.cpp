// The headless clipboard against another engine, over a pipe of the test's own.
#include "apps/client/clipboard_transfer.h"

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <thread>

#include "connection/clock.h"
#include "connection/protocol.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using Delivery = ClipboardTransfer::Delivery;
constexpr std::uint32_t SESSION = 7;
constexpr std::uint64_t DEADLINE_US = 20'000'000;

// Packets from any thread, taken by the test's.
class Pipe {
 public:
  void put(const std::uint8_t* bytes, std::uint64_t size) {
    const std::lock_guard lock(mutex_);
    packets_.emplace_back(bytes, bytes + size);
  }
  std::optional<Bytes> take() {
    const std::lock_guard lock(mutex_);
    if (packets_.empty()) return std::nullopt;
    Bytes packet = std::move(packets_.front());
    packets_.pop_front();
    return packet;
  }

 private:
  std::mutex mutex_;
  std::deque<Bytes> packets_;
};

// A host's engine.
struct Peer {
  Peer() {
    lund_clip_config config;
    config.user = this;
    config.send = [](void* user, const std::uint8_t* packet, std::uint64_t size) {
      static_cast<Peer*>(user)->out.put(packet, size);
    };
    config.on_data = [](void* user, std::uint32_t, std::uint8_t, std::uint8_t* data,
                        std::uint64_t size) {
      static_cast<Peer*>(user)->received = Bytes(data, data + size);
      lund_clip_free(data);
    };
    clip = lund_clip_create(&config);
  }
  ~Peer() { lund_clip_destroy(clip); }
  Pipe out;
  std::optional<Bytes> received;
  lund_clip* clip = nullptr;
};

class ClipboardTransferTest : public testing::Test {
 protected:
  void start(std::optional<ClipboardItem> item) {
    transfer_ = std::make_unique<ClipboardTransfer>(std::move(item));
    ASSERT_TRUE(transfer_->start());
  }
  void connect(std::uint32_t session = SESSION) {
    lund_clip_set_session(peer_.clip, session, 1'176);
    transfer_->session_start(session, 1'176, [this](const std::uint8_t* bytes, std::uint64_t size) {
      to_host_.put(bytes, size);
      return true;
    });
  }
  // True once it holds.
  template <class Condition>
  bool run_until(Condition condition) {
    const std::uint64_t deadline = lund_now_us() + DEADLINE_US;
    while (!condition()) {
      if (lund_now_us() > deadline) return false;
      bool idle = true;
      while (const auto packet = to_host_.take()) {
        lund_clip_receive(peer_.clip, packet->data(), packet->size());
        idle = false;
      }
      while (const auto packet = peer_.out.take()) {
        transfer_->receive(packet->data(), packet->size());
        idle = false;
      }
      if (idle) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
  }
  Delivery delivery() const { return transfer_->delivery(lund_now_us()); }

  Peer peer_;
  Pipe to_host_;
  std::unique_ptr<ClipboardTransfer> transfer_;
};

ClipboardItem text_item(std::size_t size) {
  return {LUND_CLIP_TEXT, Bytes(size, 'x')};
}

}  // namespace

TEST_F(ClipboardTransferTest, AnItemIsDelivered) {
  start(text_item(100'000));
  EXPECT_EQ(delivery(), Delivery::Pending);
  connect();
  EXPECT_TRUE(run_until([&] { return delivery() == Delivery::Delivered; }));
  EXPECT_EQ(peer_.received, Bytes(100'000, 'x'));
}

TEST_F(ClipboardTransferTest, TheLastItemThatCameIsKept) {
  start(std::nullopt);
  EXPECT_EQ(delivery(), Delivery::Nothing);
  connect();
  lund_clip_offer(peer_.clip, LUND_CLIP_TEXT, "one", 3);
  ASSERT_TRUE(run_until([&] { return transfer_->items_received() == 1; }));
  lund_clip_offer(peer_.clip, LUND_CLIP_PNG, "two", 3);
  ASSERT_TRUE(run_until([&] { return transfer_->items_received() == 2; }));
  EXPECT_EQ(transfer_->received()->kind, LUND_CLIP_PNG);
  EXPECT_EQ(transfer_->received()->bytes, (Bytes{'t', 'w', 'o'}));
}

TEST_F(ClipboardTransferTest, WhatASessionDidNotDeliverTheNextOneDoes) {
  start(text_item(50'000));
  connect();
  transfer_->session_end(SESSION);
  while (to_host_.take()) {
  }
  EXPECT_EQ(delivery(), Delivery::Pending);
  connect(SESSION + 1);
  EXPECT_TRUE(run_until([&] { return delivery() == Delivery::Delivered; }));
  transfer_->session_end(SESSION + 1);
  connect(SESSION + 2);  // once is enough
  EXPECT_EQ(delivery(), Delivery::Delivered);
  EXPECT_FALSE(to_host_.take());
}

TEST_F(ClipboardTransferTest, AnotherSizeOfPacketsBeginsTheItemAnew) {
  start(text_item(1'000'000));
  connect();
  lund_clip_set_session(peer_.clip, SESSION, 576);
  transfer_->resize(SESSION, 576);
  EXPECT_TRUE(run_until([&] { return delivery() == Delivery::Delivered; }));
  EXPECT_EQ(peer_.received->size(), 1'000'000u);
}

TEST_F(ClipboardTransferTest, AHostThatDoesNotAnswerIsGivenUp) {
  start(text_item(10));
  connect();
  EXPECT_EQ(transfer_->delivery(lund_now_us() + 11'000'000), Delivery::Pending);
  EXPECT_EQ(transfer_->delivery(lund_now_us() + 13'000'000), Delivery::GivenUp);
}

TEST_F(ClipboardTransferTest, ARejectionIsSaid) {
  start(text_item(10));
  connect();
  const lund_packet_header header{0, 0, SESSION};
  lund_clipboard_ack ack;
  ack.id = 1;
  ack.status = 2;
  std::uint8_t packet[64];
  const std::size_t size = lund_encode_clipboard_ack(packet, sizeof packet, &header, &ack);
  transfer_->receive(packet, size);
  EXPECT_EQ(delivery(), Delivery::Rejected);
}
