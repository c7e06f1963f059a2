// A host with its own threads and a real socket, a capture thread that never rests, and a client on
// the loopback interface. What these show beyond the tests on the virtual clock is that the threads
// get along: they are the ones to run under the thread sanitizer.
#include "host/server.h"

#include <gmock/gmock.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "connection/byte_order.h"
#include "control/keystore.h"
#include "media/video_transport.h"
#include "tests/support/engine_peer.h"
#include "tests/support/free_port.h"
#include "tests/support/server_peer.h"
#include "tests/support/temporary_store.h"

using namespace std::chrono_literals;

namespace {

constexpr std::size_t FRAME_BYTES = 5'000;
constexpr auto PATIENCE = 20s;  // of a loaded machine under a sanitizer

bool eventually(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(1ms);
  }
  return true;
}

// Sends frames, moves the pointer and changes its shape from a thread of its own, at a pace that a
// client can read under a sanitizer.
class BusyCapture final : public VideoCapture {
 public:
  ~BusyCapture() override { stop(); }
  bool init(const VideoSettings&) override { return true; }
  void start() override {
    thread_ = std::thread([this] { run(); });
  }
  void stop() override {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
  }
  void request_keyframe() override { key_wanted_ = true; }
  void set_bitrate(int) override {}
  bool encoder_is_hevc() const override { return false; }
  std::string encoder_name() const override { return "busy"; }
  std::string capture_backend() const override { return "none"; }

 private:
  void run() {
    const std::vector<std::uint8_t> bytes(FRAME_BYTES, 0x5A);
    CursorBitmap cursor;
    cursor.width = cursor.height = 4;
    for (std::uint32_t i = 0; !stopping_; ++i) {
      EncodedVideoFrame frame;
      frame.data = bytes.data();
      frame.size = bytes.size();
      frame.keyframe = key_wanted_.exchange(false);
      frame.capture_time_us = lund_now_us();
      frame_sink(frame);
      pointer_sink(static_cast<std::uint16_t>(i), 0, 1);
      cursor.pixels.assign(64, static_cast<std::uint8_t>(i));
      cursor_sink(cursor);
      std::this_thread::sleep_for(2ms);
    }
  }

  std::thread thread_;
  std::atomic<bool> stopping_{false};
  std::atomic<bool> key_wanted_{true};
};

class BusyAudio final : public AudioCapture {
 public:
  ~BusyAudio() override { stop(); }
  void start() override {
    stopping_ = false;
    thread_ = std::thread([this] {
      const std::uint8_t opus[100] = {};
      while (!stopping_) {
        on_packet(opus, sizeof opus, lund_now_us());
        std::this_thread::sleep_for(1ms);
      }
    });
  }
  void stop() override {
    stopping_ = true;
    if (thread_.joinable()) thread_.join();
  }

 private:
  std::thread thread_;
  std::atomic<bool> stopping_{false};
};

Platform busy_platform() {
  Platform platform;
  platform.list_displays = [] {
    std::vector<DisplayInfo> displays(2);
    for (int i = 0; i < 2; ++i) {
      DisplayInfo& display = displays[static_cast<std::size_t>(i)];
      display.device = "DP-" + std::to_string(i);
      display.left = i * 1280;
      display.right = display.left + 1280;
      display.width = 1280;
      display.height = display.bottom = 720;
      display.primary = i == 0;
    }
    return displays;
  };
  platform.make_capture = [] { return std::make_unique<BusyCapture>(); };
  platform.make_audio = [] { return std::make_unique<BusyAudio>(); };
  return platform;
}

// One engine session of a client, over a real socket.
class UdpClient {
 public:
  UdpClient(const std::uint8_t* host_key, std::uint16_t port)
      : peer_(7, host_key), socket_(lund_udp_open(4, nullptr, 0)) {
    EXPECT_EQ(lund_addr_parse(&host_, "127.0.0.1", port), 0);
  }
  ~UdpClient() { lund_udp_close(socket_); }

  bool connect() {
    const peer::bytes init = peer_.hs_init();
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (std::chrono::steady_clock::now() < deadline) {
      lund_udp_send(socket_, host_, init.data(), init.size());
      const peer::bytes answer = receive(500);
      if (answer.size() > 2 && answer[2] == LUND_PKT_HS_RESP && peer_.hs_finish(answer))
        return true;
    }
    return false;
  }
  bool start_stream(int screen) {
    const lund_packet_header header;
    lund_hello hello;
    hello.screen = static_cast<std::uint8_t>(screen);
    hello.audio = 1;
    peer::bytes packet(64);
    packet.resize(lund_encode_hello(packet.data(), packet.size(), &header, &hello));
    send(packet);
    return await(LUND_PKT_HELLO_ACK);
  }
  void send(const peer::bytes& plain) {
    const peer::bytes sealed = peer_.seal(plain);
    lund_udp_send(socket_, host_, sealed.data(), sealed.size());
  }
  // The next opened packet, or nothing within the time.
  std::optional<peer::bytes> next(int timeout_ms = 100) {
    const peer::bytes datagram = receive(timeout_ms);
    return datagram.empty() ? std::nullopt : peer_.open(datagram);
  }
  bool await(std::uint8_t type) {
    const auto deadline = std::chrono::steady_clock::now() + PATIENCE;
    while (std::chrono::steady_clock::now() < deadline) {
      const auto packet = next();
      if (packet && (*packet)[2] == type) return true;
    }
    return false;
  }
  std::string key() const { return {peer_.keys.public_key, peer_.keys.public_key + LUND_KEY_SIZE}; }
  std::uint32_t id() const { return peer_.session.session_id; }

 private:
  peer::bytes receive(int timeout_ms) {
    peer::bytes datagram(2'048);
    lund_rv_endpoint from;
    if (lund_udp_wait(&socket_, 1, timeout_ms) != 1) return {};
    const int size = lund_udp_recv(socket_, datagram.data(), datagram.size(), &from);
    datagram.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    return datagram;
  }

  engine_peer peer_;
  lund_socket socket_;
  lund_rv_endpoint host_;
};

class HostServerRealtimeTest : public testing::Test {
 protected:
  void SetUp() override {
    host_key_ = keystore::load_or_create_identity(nullptr);
    save_client();
    options_.port = free_port();
    host = std::make_unique<HostServer>(options_, DisplayInfo{}, busy_platform());
    host->on_status_change = [this] { ++changes; };
    ASSERT_TRUE(host->start(nullptr));
  }
  void save_client() {
    lund_client_list clients;
    lund_client_list_add(&clients, peer::keypair_of(7).public_key, "Loop");
    ASSERT_TRUE(keystore::save_clients(clients));
  }
  UdpClient client() { return {host_key_.public_key, options_.port}; }
  std::ptrdiff_t lines_with(const std::string& part) {
    return std::ranges::count_if(
        store.log_lines(), [&](const std::string& line) { return line.find(part) != line.npos; });
  }

  TemporaryStore store;
  std::atomic<int> changes{0};
  std::unique_ptr<HostServer> host;

 private:
  HostOptions options_;
  lund_keypair host_key_;
};

}  // namespace

TEST_F(HostServerRealtimeTest, AClientConnectsSeesFramesAndHearsTheShutdown) {
  UdpClient loop = client();
  ASSERT_TRUE(loop.connect());
  ASSERT_TRUE(loop.start_stream(0));
  loop.send(peer::packet(LUND_PKT_KEYFRAME_REQUEST));

  lund_reassembler* reassembler = lund_reassembler_create(1 << 20);
  int frames = 0, keyframes = 0, sounds = 0, cursors = 0;
  EXPECT_TRUE(eventually([&] {
    const auto packet = loop.next();
    if (!packet) return false;
    sounds += (*packet)[2] == LUND_PKT_AUDIO;
    cursors += (*packet)[2] == LUND_PKT_CURSOR_SHAPE;
    if ((*packet)[2] == LUND_PKT_VIDEO_SHARD)
      lund_reassembler_push(reassembler, packet->data(), packet->size());
    lund_reassembled_frame frame;
    while (lund_reassembler_pop(reassembler, &frame, nullptr) == 1) {
      ++frames;
      keyframes += frame.flags;
      EXPECT_EQ(frame.size, FRAME_BYTES);
      // However long that takes, it isn't silent meanwhile.
      loop.send(peer::packet(LUND_PKT_PING, 0, peer::bytes(12)));
    }
    return frames >= 50 && keyframes >= 1 && sounds >= 10 && cursors >= 10;
  })) << frames
      << " " << keyframes << " " << sounds << " " << cursors;
  lund_reassembler_destroy(reassembler);
  EXPECT_GT(changes, 0);

  std::thread stopping([&] { host->shutdown(); });
  EXPECT_TRUE(loop.await(LUND_PKT_BYE));  // while the stream still comes in
  stopping.join();
  EXPECT_EQ(lines_with(" ended (host shutting down): \"Loop\""), 1);
}

TEST_F(HostServerRealtimeTest, ASilentClientIsSentAwayByTheTickThread) {
  UdpClient loop = client();
  ASSERT_TRUE(loop.connect());
  ASSERT_TRUE(loop.start_stream(0));
  EXPECT_TRUE(loop.await(LUND_PKT_BYE));
  EXPECT_TRUE(eventually([&] { return lines_with(" ended (client silent for 3 s): ") == 1; }));
}

TEST_F(HostServerRealtimeTest, OfSeveralThreadsThatEndASessionOneDoes) {
  constexpr int ROUNDS = 10;
  for (int round = 0; round < ROUNDS; ++round) {
    UdpClient main = client(), side = client();
    ASSERT_TRUE(main.connect());
    ASSERT_TRUE(main.start_stream(0));
    ASSERT_TRUE(side.connect());
    ASSERT_TRUE(side.start_stream(1));
    const auto session = host->find_session(main.id());
    ASSERT_TRUE(session);
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    threads.reserve(5);
    for (int i = 0; i < 4; ++i)
      threads.emplace_back([&] {
        while (!go) std::this_thread::yield();
        host->end_session(session, "test", true, true, true);
      });
    threads.emplace_back([&] {
      while (!go) std::this_thread::yield();
      for (int i = 0; i < 50; ++i) {
        host->status();
        host->paired_devices();
      }
    });
    go = true;
    main.send(peer::packet(LUND_PKT_BYE));
    side.send(peer::packet(LUND_PKT_BYE));
    for (std::thread& thread : threads) thread.join();
    ASSERT_TRUE(eventually([&] { return host->sessions().empty(); }));
    EXPECT_TRUE(session->ended);
    // A thread may have taken the session off the list and be at its line still.
    ASSERT_TRUE(eventually([&] { return lines_with(" ended (") >= 2 * (round + 1); }));
    EXPECT_EQ(lines_with(" ended ("), 2 * (round + 1));
  }
}

TEST_F(HostServerRealtimeTest, RemovingTheDeviceInMidStreamIsSafe) {
  UdpClient loop = client();
  ASSERT_TRUE(loop.connect());
  ASSERT_TRUE(loop.start_stream(0));
  ASSERT_TRUE(loop.await(LUND_PKT_VIDEO_SHARD));
  std::thread removing([&] { EXPECT_TRUE(host->remove_device(loop.key())); });
  EXPECT_TRUE(loop.await(LUND_PKT_BYE));
  removing.join();
  EXPECT_TRUE(host->paired_devices().empty());
}

TEST_F(HostServerRealtimeTest, ShutdownWhileHellosComeInEndsCleanly) {
  UdpClient loop = client();
  ASSERT_TRUE(loop.connect());
  ASSERT_TRUE(loop.start_stream(0));
  std::atomic<bool> stop{false};
  std::thread noise([&] {
    const lund_packet_header header;
    lund_hello hello;
    peer::bytes packet(64);
    while (!stop) {
      hello.width = static_cast<std::uint16_t>(640 + hello.width % 2);
      packet.resize(64);
      packet.resize(lund_encode_hello(packet.data(), packet.size(), &header, &hello));
      hello.width = static_cast<std::uint16_t>(hello.width + 1);
      loop.send(packet);
      loop.next(1);
    }
  });
  EXPECT_TRUE(eventually([&] { return lines_with("replaced by a new HELLO") >= 3; }));
  host->shutdown();
  stop = true;
  noise.join();
  EXPECT_TRUE(host->sessions().empty());
}

// Looked up by the system's own resolver, on its thread.
TEST_F(HostServerRealtimeTest, AServerThatIsKnownByNameRegistersTheHost) {
  lund_rv_endpoint loopback;
  ASSERT_EQ(lund_addr_parse_ip(&loopback, "127.0.0.1"), 0);
  const lund_socket socket = lund_udp_open(4, &loopback, 0);
  const std::string at = "127.0.0.1:" + std::to_string(lund_udp_local_port(socket));
  server_peer server("localhost", at.c_str(), 0xA1);
  server.relay.endpoint = {};
  host->set_relays(peer::relays_of({server}));
  EXPECT_TRUE(eventually([&] {
    peer::bytes datagram(LUND_RV_MESSAGE_MAX);
    lund_rv_endpoint from;
    if (lund_udp_wait(&socket, 1, 10) == 1) {
      const int size = lund_udp_recv(socket, datagram.data(), datagram.size(), &from);
      datagram.resize(static_cast<std::size_t>(std::max(size, 0)));
      const auto message = server.read(datagram);
      EXPECT_TRUE(message && message->type == LUND_RV_REGISTER);
      const peer::bytes answer =
          message && server.accepts(*message) ? server.registered(from) : server.challenge();
      lund_udp_send(socket, from, answer.data(), answer.size());
    }
    return host->internet_status()[0].starts_with(
        "Internet: reachable by key code (public 127.0.0.1:");
  }));
  EXPECT_EQ(host->relay_states()[0].first, "localhost:" + at.substr(at.find(':') + 1));
  lund_udp_close(socket);
}

TEST_F(HostServerRealtimeTest, TheRelayListMayChangeWhileOthersLookAtItAndAsTheHostEnds) {
  const server_peer a("localhost", "127.0.0.1:9", 0xA1), b("LOCALHOST", "127.0.0.1:9", 0xB2);
  std::atomic<bool> stop{false};
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (const auto& list : {peer::relays_of({a}), peer::relays_of({b, a}), lund_relay_config{}})
    threads.emplace_back([&, list] {
      for (; !stop; ++done) host->set_relays(list);
    });
  threads.emplace_back([&] {
    while (!stop) {
      const std::vector<std::string> lines = host->internet_status();
      EXPECT_TRUE(lines.empty() || lines[0].starts_with("Internet: ")) << lines[0];
      for (const auto& [name, state] : host->relay_states()) EXPECT_FALSE(state.empty());
    }
  });
  EXPECT_TRUE(eventually([&] { return done >= 200; }));
  host->shutdown();
  stop = true;
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(host->relay_states().empty());
}
