// Pipes of the platform's own, within this process.
#include "control/ipc_transport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <optional>
#include <thread>

#include "tests/support/ipc_pipes.h"
#include "tests/support/raw_pipe.h"

namespace {

using namespace host_service;

TEST_F(IpcPipes, TheLargestFrameGoesEachWay) {
  connect_ends();
  const Bytes asked = encode_request({Verb::SetRelays, Bytes(PAYLOAD_MAX, 'r')});
  const Bytes answered =
      encode_response(Verb::SetRelays, Status::Ok, std::string(RESPONSE_TEXT_MAX, 'a'));
  ASSERT_TRUE(write_frame(client_, asked, &stop_, LONG_MS));
  ASSERT_TRUE(read_frame(server_, &frame_, &stop_, LONG_MS));
  EXPECT_EQ(frame_, asked);
  ASSERT_TRUE(write_frame(server_, answered, &stop_, LONG_MS));
  ASSERT_TRUE(read_frame(client_, &frame_, &stop_, LONG_MS));
  EXPECT_EQ(frame_, answered);
}

TEST_F(IpcPipes, FramesGoBothWaysAtTheSameTimeFromTwoThreadsAnEnd) {
  connect_ends();
  constexpr int FRAMES = 200;
  const auto writes = [](Pipe& pipe, Verb verb) {
    for (int i = 0; i < FRAMES; ++i) {
      const std::string text(static_cast<std::size_t>(i * 80), static_cast<char>('a' + i % 26));
      if (!write_frame(pipe, encode_response(verb, Status::Ok, text), nullptr, LONG_MS)) return;
    }
  };
  const auto reads = [](Pipe& pipe, Verb verb, int* whole) {
    Bytes frame;
    Status status{};
    std::string text;
    for (int i = 0; i < FRAMES && read_frame(pipe, &frame, nullptr, LONG_MS); ++i) {
      const bool right =
          decode_response(frame.data(), frame.size(), verb, &status, &text) &&
          text == std::string(static_cast<std::size_t>(i * 80), static_cast<char>('a' + i % 26));
      *whole += right;
    }
  };
  int at_server = 0, at_client = 0;
  {
    std::thread a([&] { writes(server_, Verb::Status); });
    std::thread b([&] { writes(client_, Verb::Stop); });
    std::thread c([&] { reads(server_, Verb::Stop, &at_server); });
    reads(client_, Verb::Status, &at_client);
    a.join();
    b.join();
    c.join();
  }
  EXPECT_EQ(at_server, FRAMES);
  EXPECT_EQ(at_client, FRAMES);
}

TEST_F(IpcPipes, AClientMayComeBeforeItsServer) {
  std::thread late([this] { server_ = serve(); });
  client_ = open_pipe(name_, nullptr, LONG_MS);
  late.join();
  EXPECT_TRUE(client_);
  EXPECT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
}

TEST_F(IpcPipes, TransactAsksAndIsAnswered) {
  if (!system_process(Process::current(), nullptr)) GTEST_SKIP() << "no server of the system's";
  server_ = serve();
  std::thread server([this] {
    Request asked;
    if (connect_pipe(server_, nullptr, LONG_MS) && read_frame(server_, &frame_, nullptr, LONG_MS) &&
        decode_request(frame_.data(), frame_.size(), &asked))
      write_frame(server_, encode_response(asked.verb, Status::Persistence, "words"), nullptr,
                  LONG_MS);
  });
  const Result result = transact(name_, {Verb::ClearPassword, {}}, nullptr);
  server.join();
  EXPECT_EQ(result.status, Status::Persistence);
  EXPECT_EQ(result.text, "words");
}

TEST_F(IpcPipes, TransactWithNobodyThereSaysUnavailableWhenItIsStopped) {
  stop_.set();
  const Result result = transact(name_, {Verb::Status, {}}, &stop_);
  EXPECT_EQ(result.status, Status::Unavailable);
  EXPECT_EQ(result.text, "service unavailable or access denied");
}

TEST_F(IpcPipes, ANameHasFourInstancesAtMost) {
  std::vector<Pipe> instances;
  for (int i = 0; i < 4; ++i) {
    instances.push_back(serve(i == 0));
    EXPECT_TRUE(instances.back());
  }
  EXPECT_FALSE(serve(false));
  instances.pop_back();
  EXPECT_TRUE(serve(false));
}

TEST_F(IpcPipes, EachInstanceHasAClientOfItsOwn) {
  Pipe first = serve(), second = serve(false);
  Pipe one = open_pipe(name_, nullptr, LONG_MS), two = open_pipe(name_, nullptr, LONG_MS);
  ASSERT_TRUE(connect_pipe(first, nullptr, LONG_MS));
  ASSERT_TRUE(connect_pipe(second, nullptr, LONG_MS));
  ASSERT_TRUE(write_frame(one, request(), nullptr, LONG_MS));
  EXPECT_TRUE(read_frame(first, &frame_, nullptr, LONG_MS));
  stop_.set();
  EXPECT_FALSE(read_frame(second, &frame_, &stop_, LONG_MS));
}

TEST_F(IpcPipes, TheFirstInstanceFailsWhereThisProcessServesTheName) {
  server_ = serve();
  EXPECT_FALSE(serve());
  EXPECT_TRUE(serve(false));
}

TEST_F(IpcPipes, ElevenHeaderBytesFailAtTheDeadline) {
  server_ = serve();
  RawPipe peer(name_);
  ASSERT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  const Bytes whole = request();
  ASSERT_TRUE(peer.send(Bytes(whole.begin(), whole.begin() + 11)));
  const Stopwatch watch;
  EXPECT_FALSE(read_frame(server_, &frame_, &stop_, SHORT_MS));
  EXPECT_GE(watch.elapsed(), milliseconds(SHORT_MS));
}

TEST_F(IpcPipes, ASlowPeerFailsAtTheDeadline) {
  server_ = serve();
  RawPipe peer(name_);
  ASSERT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  std::thread slow([this, &peer] {
    // Its 112 bytes would take 22 seconds.
    for (const unsigned char byte : request()) {
      if (!peer.send({byte}) || stop_.wait(200)) return;
    }
  });
  const Stopwatch watch;
  EXPECT_FALSE(read_frame(server_, &frame_, nullptr, SHORT_MS));
  EXPECT_GE(watch.elapsed(), milliseconds(SHORT_MS));
  EXPECT_LT(watch.elapsed(), milliseconds(20'000));
  stop_.set();
  slow.join();
}

TEST_F(IpcPipes, APeerThatTakesNothingFailsTheWriteAtTheDeadline) {
  connect_ends();
  const Bytes largest = encode_request({Verb::SetRelays, Bytes(PAYLOAD_MAX, 'r')});
  const Stopwatch watch;
  while (write_frame(client_, largest, nullptr, SHORT_MS)) {
    ASSERT_LT(watch.elapsed(), AT_ONCE);
  }
  EXPECT_GE(watch.elapsed(), milliseconds(SHORT_MS));
}

TEST_F(IpcPipes, AHeaderWithALengthOf16385FailsBeforeThePayload) {
  server_ = serve();
  RawPipe peer(name_);
  ASSERT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  ASSERT_TRUE(peer.send({'L', 'H', 'I', 'P', 1, 0, 7, 0, 0x01, 0x40, 0, 0}));
  const Stopwatch watch;
  EXPECT_FALSE(read_frame(server_, &frame_, nullptr, LONG_MS));
  EXPECT_LT(watch.elapsed(), AT_ONCE);
}

TEST_F(IpcPipes, APeerThatLeavesInMidFrameFailsTheReadAtOnce) {
  server_ = serve();
  std::optional<RawPipe> peer(name_);
  ASSERT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  const Bytes whole = request();
  ASSERT_TRUE(peer->send(Bytes(whole.begin(), whole.begin() + 50)));
  peer.reset();
  const Stopwatch watch;
  EXPECT_FALSE(read_frame(server_, &frame_, nullptr, LONG_MS));
  EXPECT_LT(watch.elapsed(), AT_ONCE);
}

TEST_F(IpcPipes, AWriteToAPeerThatIsGoneFails) {
  connect_ends();
  server_ = Pipe();
  EXPECT_FALSE(write_frame(client_, request(), nullptr, LONG_MS));
}

TEST_F(IpcPipes, ASetStopEventEndsEachWaitAtOnce) {
  connect_ends();
  Pipe waiting = serve(false);
  const Bytes largest = encode_request({Verb::SetRelays, Bytes(PAYLOAD_MAX, 'r')});
  const std::string missing = name_ + "-missing";
  const std::function<void()> waits[] = {
      [&] { EXPECT_FALSE(open_pipe(missing, &stop_, LONG_MS)); },
      [&] { EXPECT_FALSE(connect_pipe(waiting, &stop_, LONG_MS)); },
      [&] { EXPECT_FALSE(read_frame(client_, &frame_, &stop_, LONG_MS)); },
      [&] {  // nobody reads: one of them waits for room
        while (write_frame(client_, largest, &stop_, LONG_MS)) {
        }
      },
      [&] { wait_client_close(client_, &stop_, LONG_MS); },
  };
  for (const auto& wait : waits) {
    const Stopwatch watch;
    stop_.reset();
    std::atomic<bool> begun = false;
    std::thread stopper([&] {
      while (!begun) std::this_thread::yield();
      stop_.set();
    });
    begun = true;
    wait();
    stopper.join();
    EXPECT_LT(watch.elapsed(), AT_ONCE);
  }
}

TEST_F(IpcPipes, WhatHasArrivedIsReadThoughStopIsSet) {
  connect_ends();
  ASSERT_TRUE(write_frame(client_, request(), nullptr, LONG_MS));
  stop_.set();
  EXPECT_TRUE(read_frame(server_, &frame_, &stop_, LONG_MS));
  EXPECT_FALSE(read_frame(server_, &frame_, &stop_, LONG_MS));
}

TEST_F(IpcPipes, WaitingForTheClientsCloseEndsWithItWithDataAndAtTheLimit) {
  connect_ends();
  Stopwatch watch;
  wait_client_close(server_, nullptr, SHORT_MS);
  EXPECT_GE(watch.elapsed(), milliseconds(SHORT_MS));
  const Stopwatch rest;
  ASSERT_TRUE(write_frame(client_, request(), nullptr, LONG_MS));
  wait_client_close(server_, nullptr, LONG_MS);
  client_ = Pipe();
  wait_client_close(server_, nullptr, LONG_MS);
  EXPECT_LT(rest.elapsed(), AT_ONCE);
}

}  // namespace
