// What holds on every platform, over a pipe that does as a test has it, in virtual time.
#include "control/ipc_transport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <optional>

#include "control/pipe_platform.h"
#include "tests/support/virtual_time.h"

// ---- The platform's part, by the test

namespace host_service {

using Bytes = std::vector<unsigned char>;

struct Pipe::End {
  struct Portion {
    std::uint64_t after_ms;
    Bytes bytes;
  };
  std::deque<Portion> incoming;
  std::size_t takes = FRAME_MAX;  // bytes a step of writing
  std::uint64_t write_ms = 0;     // and how long it lasts
  std::size_t most_at_once = 0;   // that a read asked for
  Bytes written;
  int steps = 0;
  Process server;
};

Pipe::Pipe() = default;
Pipe::Pipe(std::unique_ptr<End> end) : end_(std::move(end)) {}
Pipe::~Pipe() = default;
Pipe::Pipe(Pipe&& other) noexcept = default;
Pipe& Pipe::operator=(Pipe&& other) noexcept = default;

namespace pipe_platform {

namespace {

std::function<Open(Pipe*)> opening;

// What a real wait does: until then, but no longer than the deadline or a `stop`, which can't come
// meanwhile here.
bool wait_until(std::uint64_t time_us, const WakeEvent* stop, std::uint64_t deadline_us) {
  const bool stopped = stop != nullptr && const_cast<WakeEvent*>(stop)->wait(0);
  if (stopped) return false;
  const std::uint64_t now_us = lund_now_us();
  const std::uint64_t end_us = std::max(now_us, std::min(time_us, deadline_us));
  virtual_time::advance_us(end_us - now_us);
  return time_us <= deadline_us;
}

}  // namespace

Open try_open(const std::string&, Pipe* pipe) {
  return opening(pipe);
}

std::size_t receive(Pipe::End& end, unsigned char* bytes, std::size_t size, const WakeEvent* stop,
                    std::uint64_t deadline_us) {
  ++end.steps;
  end.most_at_once = std::max(end.most_at_once, size);
  if (end.incoming.empty()) {
    wait_until(UINT64_MAX, stop, deadline_us);
    return 0;
  }
  Pipe::End::Portion& next = end.incoming.front();
  if (next.after_ms > 0 && !wait_until(lund_now_us() + next.after_ms * 1'000, stop, deadline_us))
    return 0;
  next.after_ms = 0;
  const std::size_t moved = std::min(size, next.bytes.size());
  std::copy_n(next.bytes.begin(), moved, bytes);
  next.bytes.erase(next.bytes.begin(), next.bytes.begin() + static_cast<std::ptrdiff_t>(moved));
  if (next.bytes.empty()) end.incoming.pop_front();
  return moved;
}

// Its steps last as long as they do: like a machine that is held up, they don't see the deadline.
std::size_t send(Pipe::End& end, const unsigned char* bytes, std::size_t size, const WakeEvent*,
                 std::uint64_t) {
  ++end.steps;
  virtual_time::advance_ms(end.write_ms);
  const std::size_t moved = std::min(size, end.takes);
  end.written.insert(end.written.end(), bytes, bytes + moved);
  return moved;
}

const Process& client(Pipe::End& end) {
  return end.server;
}
const Process& server(Pipe::End& end) {
  return end.server;
}

}  // namespace pipe_platform

}  // namespace host_service

// ---- The tests

namespace {

using namespace host_service;
using pipe_platform::Open;

constexpr std::uint32_t LIMIT_MS = 1'000;

std::uint64_t elapsed_ms() {
  return (lund_now_us() - virtual_time::START_US) / 1'000;
}

class IpcTransport : public testing::Test {
 protected:
  void SetUp() override {
    virtual_time::reset();
    pipe_platform::opening = nullptr;
  }
  void TearDown() override { pipe_platform::opening = nullptr; }

  Pipe::End& end() { return *pipe_.end(); }
  void comes(std::uint64_t after_ms, const Bytes& bytes) {
    end().incoming.push_back({after_ms, bytes});
  }
  bool reads() { return read_frame(pipe_, &frame_, &stop_, LIMIT_MS); }

  // `made` of the end that is opened, the `tries`th time that it is tried.
  void opens_at(
      int tries, std::function<void(Pipe::End&)> make = [](Pipe::End&) {}) {
    pipe_platform::opening = [this, tries, make](Pipe* pipe) {
      if (++tries_ < tries) return Open::Retry;
      auto made = std::make_unique<Pipe::End>();
      made->server = Process::current();
      make(*made);
      *pipe = Pipe(std::move(made));
      return Open::Connected;
    };
  }

  const Bytes request_ = encode_request({Verb::SetPassword, {'s', 'e', 'c', 'r', 'e', 't'}});
  Pipe pipe_{std::make_unique<Pipe::End>()};
  WakeEvent stop_{WakeEvent::Reset::Manual};
  Bytes frame_ = {1, 2, 3};
  int tries_ = 0;
};

Bytes part(const Bytes& bytes, std::size_t from, std::size_t to) {
  return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
               bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

TEST_F(IpcTransport, AFrameArrivesWholeHoweverItIsCut) {
  for (const unsigned char byte : request_) comes(10, {byte});
  ASSERT_TRUE(reads());
  EXPECT_EQ(frame_, request_);
}

TEST_F(IpcTransport, OneReadTakesOneFrameOfSeveral) {
  Bytes two = request_;
  two.insert(two.end(), request_.begin(), request_.end());
  comes(0, two);
  for (int i = 0; i < 2; ++i) {
    ASSERT_TRUE(reads());
    EXPECT_EQ(frame_, request_);
  }
  EXPECT_FALSE(reads());
}

TEST_F(IpcTransport, ElevenBytesOfAHeaderFailAtTheDeadline) {
  comes(0, part(request_, 0, 11));
  EXPECT_FALSE(reads());
  EXPECT_EQ(elapsed_ms(), LIMIT_MS);
  EXPECT_EQ(frame_, (Bytes{1, 2, 3}));
}

TEST_F(IpcTransport, AWrongMagicFailsBeforeThePayloadIsRead) {
  Bytes wrong = request_;
  wrong[0] = 'X';
  comes(0, wrong);
  EXPECT_FALSE(reads());
  EXPECT_EQ(end().most_at_once, HEADER_BYTES);
  EXPECT_EQ(elapsed_ms(), 0u);
}

TEST_F(IpcTransport, ALengthOf16385FailsBeforeThePayloadIsRead) {
  comes(0, {'L', 'H', 'I', 'P', 1, 0, 7, 0, 0x01, 0x40, 0, 0, 'x'});
  EXPECT_FALSE(reads());
  EXPECT_EQ(end().most_at_once, HEADER_BYTES);
}

TEST_F(IpcTransport, TheDeadlineIsForTheWholeFrame) {
  // No byte is late by itself.
  for (const unsigned char byte : request_) comes(200, {byte});
  EXPECT_FALSE(reads());
  EXPECT_EQ(elapsed_ms(), LIMIT_MS);
}

TEST_F(IpcTransport, ATransferThatIsCompleteAfterItsDeadlineHasFailed) {
  end().write_ms = LIMIT_MS;
  EXPECT_TRUE(write_frame(pipe_, request_, &stop_, LIMIT_MS));
  end().write_ms = LIMIT_MS + 1;
  end().written.clear();
  EXPECT_FALSE(write_frame(pipe_, request_, &stop_, LIMIT_MS));
  EXPECT_EQ(end().written, request_);
}

TEST_F(IpcTransport, AFrameIsWrittenWholeHoweverLittleIsTakenAtATime) {
  end().takes = 5;
  EXPECT_TRUE(write_frame(pipe_, request_, nullptr, LIMIT_MS));
  EXPECT_EQ(end().written, request_);
  EXPECT_EQ(end().steps, 4);
}

TEST_F(IpcTransport, AWriteOf16397BytesOrNoneIsRefusedWithoutTouchingThePipe) {
  EXPECT_FALSE(write_frame(pipe_, Bytes(FRAME_MAX + 1), &stop_, LIMIT_MS));
  EXPECT_FALSE(write_frame(pipe_, {}, &stop_, LIMIT_MS));
  EXPECT_EQ(end().steps, 0);
  EXPECT_TRUE(write_frame(pipe_, Bytes(FRAME_MAX), &stop_, LIMIT_MS));
}

TEST_F(IpcTransport, StopEndsAReadAtOnce) {
  stop_.set();
  EXPECT_FALSE(reads());
  EXPECT_EQ(elapsed_ms(), 0u);
}

TEST_F(IpcTransport, WithoutAPipeNothingWorksAndNobodyIsTrusted) {
  Pipe none;
  EXPECT_FALSE(read_frame(none, &frame_, nullptr, LIMIT_MS));
  EXPECT_FALSE(write_frame(none, request_, nullptr, LIMIT_MS));
  EXPECT_EQ(pipe_client_id(none), 0u);
  EXPECT_EQ(pipe_server_id(none), 0u);
  EXPECT_FALSE(pipe_client(none, true, nullptr, 0));
  EXPECT_FALSE(pipe_server(none, 0));
}

TEST_F(IpcTransport, APeerThatCannotBeToldIsNotTrusted) {
  const Process self = Process::current();
  EXPECT_EQ(pipe_server_id(pipe_), 0u);
  EXPECT_FALSE(pipe_server(pipe_, 0));
  EXPECT_FALSE(pipe_client(pipe_, true, nullptr, 0));
  EXPECT_FALSE(pipe_client(pipe_, false, &self, 0));
}

TEST_F(IpcTransport, OpeningTriesEach25MillisecondsUntilTheNameIsThere) {
  opens_at(5);
  EXPECT_TRUE(open_pipe("name", nullptr, LIMIT_MS));
  EXPECT_EQ(elapsed_ms(), 100u);
}

TEST_F(IpcTransport, OpeningEndsAtItsDeadline) {
  opens_at(1'000);
  EXPECT_FALSE(open_pipe("name", &stop_, LIMIT_MS));
  EXPECT_EQ(elapsed_ms(), LIMIT_MS);
  EXPECT_EQ(tries_, 40);
}

TEST_F(IpcTransport, OpeningEndsAtOnceWhenItIsStopped) {
  opens_at(2);
  stop_.set();
  EXPECT_FALSE(open_pipe("name", &stop_, LIMIT_MS));
  EXPECT_EQ(tries_, 1);
  EXPECT_EQ(elapsed_ms(), 0u);
}

TEST_F(IpcTransport, OpeningEndsAtOnceOverAnythingButAMissingOrBusyName) {
  pipe_platform::opening = [](Pipe*) { return Open::Failed; };
  EXPECT_FALSE(open_pipe("name", nullptr, LIMIT_MS));
  EXPECT_EQ(elapsed_ms(), 0u);
}

TEST_F(IpcTransport, ATransactionWithNobodySaysUnavailableAfter5Seconds) {
  opens_at(1'000);
  const Result result = transact("name", {Verb::Status, {}}, nullptr);
  EXPECT_EQ(result.status, Status::Unavailable);
  EXPECT_EQ(result.text, "service unavailable or access denied");
  EXPECT_EQ(elapsed_ms(), PIPE_LIMIT_MS);
}

TEST_F(IpcTransport, ATransactionWithAnUntrustedServerSaysDeniedAndSendsNothing) {
  Pipe::End* opened = nullptr;
  opens_at(1, [&opened](Pipe::End& made) {
    made.server = Process();
    opened = &made;
    EXPECT_EQ(made.steps, 0);
  });
  const Result result = transact("name", {Verb::SetPassword, {'x'}}, nullptr);
  EXPECT_NE(opened, nullptr);
  EXPECT_EQ(result.status, Status::Denied);
  EXPECT_EQ(result.text, "untrusted service endpoint");
}

class IpcTransaction : public IpcTransport {
 protected:
  void SetUp() override {
    IpcTransport::SetUp();
    if (!system_process(Process::current(), nullptr))
      GTEST_SKIP() << "only root's own server is trusted";
  }
  Result asks(const Request& request, const Bytes& answer, std::uint64_t after_ms = 0) {
    opens_at(1, [&](Pipe::End& made) {
      if (!answer.empty()) made.incoming.push_back({after_ms, answer});
    });
    return transact("name", request, nullptr);
  }
  void expect_failed(const Result& result) {
    EXPECT_EQ(result.status, Status::Failed);
    EXPECT_EQ(result.text, "bounded IPC request failed");
  }
};

TEST_F(IpcTransaction, GivesTheStatusAndTextOfTheAnswer) {
  const Result result =
      asks({Verb::Stop, {}}, encode_response(Verb::Stop, Status::Invalid, "words"), 4'900);
  EXPECT_EQ(result.status, Status::Invalid);
  EXPECT_EQ(result.text, "words");
}

TEST_F(IpcTransaction, FailsWithoutAnAnswerAfter5Seconds) {
  expect_failed(asks({Verb::Stop, {}}, {}));
  EXPECT_EQ(elapsed_ms(), PIPE_LIMIT_MS);
}

TEST_F(IpcTransaction, FailsOverTheAnswerToAnotherVerb) {
  expect_failed(asks({Verb::Stop, {}}, encode_response(Verb::Status, Status::Ok, "words")));
}

TEST_F(IpcTransaction, FailsOverARequestThatBreaksTheRules) {
  expect_failed(asks({Verb::SetPassword, {}}, encode_response(Verb::SetPassword, Status::Ok, "")));
}

}  // namespace
