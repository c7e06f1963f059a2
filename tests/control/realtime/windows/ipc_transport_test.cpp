// Named pipes between processes, some of which mean no good.
#include "control/ipc_transport.h"

#include <gtest/gtest.h>

#include <optional>
#include <thread>

#include "tests/support/ipc_pipes.h"
#include "tests/support/windows/neighbour.h"

namespace {

using namespace host_service;

std::uint32_t own_id() {
  return GetCurrentProcessId();
}

class IpcNeighbours : public IpcPipes {
 protected:
  // A neighbour as LocalSystem that serves the name, and this process's connection to it.
  void meet_system_server() {
    server_process_.emplace(As::System);
    if (!*server_process_) GTEST_SKIP() << Neighbour::NO_SYSTEM;
    handle_ = server_process_->tell("serve " + name_);
    ASSERT_NE(handle_, "no");
    client_ = open_pipe(name_, nullptr, LONG_MS);
    ASSERT_TRUE(client_);
    ASSERT_EQ(server_process_->tell("accept"), "yes");
  }
  // This process's end of a pipe, connected to a neighbour.
  void meet_client(Neighbour& neighbour) {
    server_ = serve();
    ASSERT_TRUE(neighbour);
    ASSERT_EQ(neighbour.tell("open " + name_), "yes");
    ASSERT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  }

  std::optional<Neighbour> server_process_;
  std::string handle_;
};

// ---- Peers that break off, dawdle or flood

TEST_F(IpcNeighbours, APeerThatIsKilledInMidFrameFailsTheReadAtOnce) {
  Neighbour peer;
  meet_client(peer);
  ASSERT_EQ(peer.tell("send 11 76"), "yes");
  peer.end();
  const Stopwatch watch;
  EXPECT_FALSE(read_frame(server_, &frame_, nullptr, LONG_MS));
  EXPECT_LT(watch.elapsed(), AT_ONCE);
  EXPECT_EQ(pipe_client_id(server_), 0u);
}

TEST_F(IpcNeighbours, APeerThatSendsAByteNowAndThenFailsTheReadAtTheDeadline) {
  Neighbour peer;
  meet_client(peer);
  ASSERT_EQ(peer.tell("trickle 1000 76"), "yes");
  const Stopwatch watch;
  EXPECT_FALSE(read_frame(server_, &frame_, nullptr, SHORT_MS));
  EXPECT_GE(watch.elapsed(), milliseconds(SHORT_MS));
  EXPECT_LT(watch.elapsed(), AT_ONCE);
}

TEST_F(IpcNeighbours, SixteenThousandBytesThatAreNoFrameFailTheReadAtTheirHeader) {
  Neighbour peer;
  meet_client(peer);
  ASSERT_EQ(peer.tell("send 16385 76"), "yes");  // they fit into the buffer
  const Stopwatch watch;
  EXPECT_FALSE(read_frame(server_, &frame_, nullptr, LONG_MS));
  EXPECT_LT(watch.elapsed(), AT_ONCE);
}

TEST_F(IpcNeighbours, APeerThatIsKilledWhileItTakesNothingFailsTheWriteAtOnce) {
  Neighbour peer;
  meet_client(peer);
  const Bytes largest = encode_request({Verb::SetRelays, Bytes(PAYLOAD_MAX, 'r')});
  std::thread killer([&] {
    ASSERT_TRUE(stop_.wait(LONG_MS));
    peer.end();
  });
  const Stopwatch watch;
  stop_.set();
  while (write_frame(server_, largest, nullptr, LONG_MS)) {
    ASSERT_LT(watch.elapsed(), AT_ONCE);
  }
  EXPECT_LT(watch.elapsed(), AT_ONCE);
  killer.join();
}

TEST_F(IpcNeighbours, AClientThatCameAndWentIsAFailureAndTheNextOneIsServed) {
  server_ = serve();
  {
    const Pipe gone = open_pipe(name_, nullptr, LONG_MS);
    ASSERT_TRUE(gone);
  }
  EXPECT_FALSE(connect_pipe(server_, nullptr, LONG_MS));
  std::thread next([this] { client_ = open_pipe(name_, nullptr, LONG_MS); });
  EXPECT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  next.join();
  ASSERT_TRUE(write_frame(client_, request(), nullptr, LONG_MS));
  EXPECT_TRUE(read_frame(server_, &frame_, nullptr, LONG_MS));
}

TEST_F(IpcNeighbours, WhatAClientThatIsGoneHadSentIsReadToItsEnd) {
  connect_ends();
  ASSERT_TRUE(write_frame(client_, request(), nullptr, LONG_MS));
  client_ = Pipe();
  EXPECT_TRUE(read_frame(server_, &frame_, nullptr, LONG_MS));
  EXPECT_EQ(frame_, request());
  EXPECT_FALSE(read_frame(server_, &frame_, nullptr, LONG_MS));
  EXPECT_EQ(pipe_client_id(server_), 0u);
}

// ---- Names

TEST_F(IpcNeighbours, AnotherProcesssPipeKeepsTheFirstInstanceFromTheName) {
  Neighbour guesser;
  ASSERT_TRUE(guesser);
  ASSERT_NE(guesser.tell("serve " + name_ + " plain"), "no");
  EXPECT_FALSE(serve());
}

TEST_F(IpcNeighbours, ABusyNameIsWaitedFor) {
  connect_ends();
  Pipe second = open_pipe(name_, nullptr, 100);
  EXPECT_FALSE(second);
  Pipe another = serve(false);
  second = open_pipe(name_, nullptr, LONG_MS);
  EXPECT_TRUE(second);
  EXPECT_TRUE(connect_pipe(another, nullptr, LONG_MS));
}

TEST_F(IpcNeighbours, WhatIsNoPipesNameFailsAtOnce) {
  const Stopwatch watch;
  EXPECT_FALSE(open_pipe("", nullptr, LONG_MS));
  EXPECT_FALSE(open_pipe("C:\\windows", nullptr, LONG_MS));
  EXPECT_FALSE(create_pipe("pipe", true, true));
  EXPECT_FALSE(create_pipe("", true, true));
  EXPECT_LT(watch.elapsed(), AT_ONCE);
}

// ---- Who is at the other end

TEST_F(IpcNeighbours, EachEndKnowsTheOthersProcessAndNotItsOwn) {
  connect_ends();
  EXPECT_EQ(pipe_server_id(client_), own_id());
  EXPECT_EQ(pipe_client_id(server_), own_id());
  EXPECT_EQ(pipe_client_id(client_), 0u);
  EXPECT_EQ(pipe_server_id(server_), 0u);
  client_ = Pipe();
  EXPECT_EQ(pipe_client_id(server_), 0u);
}

TEST_F(IpcNeighbours, AnEndWithoutAPeerKnowsNobody) {
  server_ = serve();
  EXPECT_EQ(pipe_client_id(server_), 0u);
  EXPECT_FALSE(pipe_client(server_, true, nullptr, 0));
}

TEST_F(IpcNeighbours, TheServersEndThatIsClosedIsNobodys) {
  connect_ends();
  server_ = Pipe();
  EXPECT_EQ(pipe_server_id(client_), 0u);
  EXPECT_FALSE(pipe_server(client_, own_id()));
}

TEST_F(IpcNeighbours, AnOrdinaryProcesssServerIsNotTrustedWhateverItsNumber) {
  if (system_process(Process::current(), nullptr)) GTEST_SKIP() << "this process is the system's";
  connect_ends();
  EXPECT_EQ(pipe_server_id(client_), own_id());
  EXPECT_FALSE(pipe_server(client_, own_id()));
  EXPECT_FALSE(pipe_server(client_, 0));
  std::thread server([this] {
    // A pipe without its server would be retried until the limit.
    EXPECT_FALSE(read_frame(server_, &frame_, nullptr, LONG_MS));
  });
  Pipe next = serve(false);
  const Result result = transact(name_, {Verb::SetPassword, {'x'}}, nullptr);
  EXPECT_EQ(result.status, Status::Denied);
  EXPECT_EQ(result.text, "untrusted service endpoint");
  client_ = Pipe();
  server.join();
  EXPECT_TRUE(frame_.empty());
}

TEST_F(IpcNeighbours, TheSystemsServerIsTrustedByItsOwnNumberOrWithoutOne) {
  meet_system_server();
  if (IsSkipped()) return;
  const std::uint32_t id = server_process_->id();
  EXPECT_EQ(pipe_server_id(client_), id);
  EXPECT_TRUE(pipe_server(client_, id));
  EXPECT_TRUE(pipe_server(client_, 0));
  EXPECT_FALSE(pipe_server(client_, own_id()));
  EXPECT_FALSE(pipe_server(client_, id + 1));
  server_process_->end();
  EXPECT_FALSE(pipe_server(client_, id));
  EXPECT_FALSE(pipe_server(client_, 0));
  EXPECT_EQ(pipe_server_id(client_), 0u);
}

TEST_F(IpcNeighbours, APipeThatIsNotTheSystemsIsNobodysWhoeverServesIt) {
  server_process_.emplace(As::System);
  if (!*server_process_) GTEST_SKIP() << Neighbour::NO_SYSTEM;
  ASSERT_NE(server_process_->tell("serve " + name_ + " plain"), "no");
  client_ = open_pipe(name_, nullptr, LONG_MS);
  ASSERT_TRUE(client_);
  EXPECT_EQ(pipe_server_id(client_), 0u);
  EXPECT_FALSE(pipe_server(client_, 0));
}

// The pipe lives on in an accomplice's hands, and with it the number that the system tells.
TEST_F(IpcNeighbours, AServerThatEndedIsNotTrustedThoughItsPipeIsStillOpen) {
  meet_system_server();
  if (IsSkipped()) return;
  HANDLE taken = nullptr;
  ASSERT_TRUE(DuplicateHandle(server_process_->process(),
                              reinterpret_cast<HANDLE>(std::stoull(handle_)), GetCurrentProcess(),
                              &taken, 0, FALSE, DUPLICATE_SAME_ACCESS));
  const Handle accomplice(taken);
  const std::uint32_t id = server_process_->id();
  EXPECT_TRUE(pipe_server(client_, id));
  server_process_->end();
  EXPECT_EQ(pipe_server_id(client_), id);
  EXPECT_FALSE(pipe_server(client_, id));
  EXPECT_FALSE(pipe_server(client_, 0));
}

TEST_F(IpcNeighbours, AWorkerIsTheVeryProcessOfTheSystemInItsSession) {
  Neighbour worker(As::System), other(As::System);
  if (!worker) GTEST_SKIP() << Neighbour::NO_SYSTEM;
  meet_client(worker);
  const Process process = Process::open(worker.id()), another = Process::open(other.id());
  std::uint32_t session = 0;
  ASSERT_TRUE(system_process(process, &session));
  EXPECT_EQ(pipe_client_id(server_), worker.id());
  EXPECT_TRUE(pipe_client(server_, false, &process, session));
  EXPECT_FALSE(pipe_client(server_, false, &process, session + 1));
  EXPECT_FALSE(pipe_client(server_, false, &another, session));
  EXPECT_FALSE(pipe_client(server_, false, nullptr, session));
  worker.end();
  EXPECT_FALSE(pipe_client(server_, false, &process, session));
}

TEST_F(IpcNeighbours, AnOrdinaryProcessIsNoWorker) {
  Neighbour ordinary;
  meet_client(ordinary);
  const Process process = Process::open(ordinary.id());
  if (system_process(process, nullptr)) GTEST_SKIP() << "all here are the system's";
  EXPECT_EQ(pipe_client_id(server_), ordinary.id());
  for (const std::uint32_t session : {0u, 1u})
    EXPECT_FALSE(pipe_client(server_, false, &process, session));
}

TEST_F(IpcNeighbours, AnAdministratorIsWhoseTokenIsElevated) {
  Neighbour neighbour;
  meet_client(neighbour);
  EXPECT_EQ(pipe_client(server_, true, nullptr, 0),
            elevated_admin_process(Process::open(neighbour.id())));
}

}  // namespace
