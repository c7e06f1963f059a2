// What a pipe's two ends ask of Windows: with which arguments, and what becomes of an operation
// that fails or may not wait longer.
#include <gmock/gmock.h>

#include "control/pipe_platform.h"
#include "control/windows/handles.h"
#include "tests/support/ipc_pipes.h"
#include "tests/support/windows/machine/system_calls.h"

namespace {

using namespace host_service;
using testing::ElementsAre;
using Of = SystemCalls::Of;

// Instances, buffers and the time-out of each, local clients alone (PIPE_REJECT_REMOTE_CLIENTS).
const std::string AN_INSTANCE = " mode 8 instances 4 buffers 16396 16396 timeout 5000 ";
// An operation that may not wait longer: it has ended, one way or the other, before its buffer
// goes.
const auto CANCELLED_AND_WAITED_FOR = ElementsAre("CancelIoEx one", "GetOverlappedResult waiting");

class PipeCalls : public IpcPipes {
 protected:
  void SetUp() override {
    IpcPipes::SetUp();
    calls_.take();
  }

  SystemCalls calls_{{Of::Files, Of::Pipes}};
};

TEST_F(PipeCalls, AWorkersPipeIsTheSystemsAlone) {
  create_pipe(name_, false, true);
  EXPECT_THAT(calls_.take(), ElementsAre("CreateNamedPipeW open 40080003" + AN_INSTANCE +
                                         "O:SYG:SYD:P(A;;GA;;;SY)"));
}

TEST_F(PipeCalls, AnAdministratorsIsTheirsToReadAndWriteAndALaterInstanceNeedNotBeTheFirst) {
  create_pipe(name_, true, false);
  const std::string systems =
      "CreateNamedPipeW open 40000003" + AN_INSTANCE + "O:SYG:SYD:P(A;;GA;;;SY)";
  // Two rights, in the order in which the system tells them.
  EXPECT_THAT(calls_.take(),
              ElementsAre(testing::AnyOf(systems + "(A;;GRGW;;;BA)", systems + "(A;;GWGR;;;BA)")));
}

TEST_F(PipeCalls, OneThatCannotBeMadeIsNone) {
  calls_.fail("CreateNamedPipeW", ERROR_PIPE_BUSY);
  EXPECT_FALSE(serve());
}

TEST_F(PipeCalls, AClientHasItsEndForItselfAndCannotBeActedAs) {
  server_ = serve();
  calls_.take();
  EXPECT_TRUE(open_pipe(name_, nullptr, LONG_MS));
  EXPECT_THAT(calls_.take(), ElementsAre(testing::EndsWith(
                                 " access c0000000 share 0 default disposition 3 flags 40110000")));
}

TEST_F(PipeCalls, AClientTriesAgainWhereTheNameIsBusyOrMissingAlone) {
  using pipe_platform::Open;
  for (const DWORD error : {ERROR_PIPE_BUSY, ERROR_FILE_NOT_FOUND}) {
    calls_.fail("CreateFileW", error);
    EXPECT_EQ(pipe_platform::try_open(name_, &client_), Open::Retry) << error;
  }
  for (const DWORD error : {ERROR_ACCESS_DENIED, ERROR_PATH_NOT_FOUND, ERROR_INVALID_NAME,
                            ERROR_SEM_TIMEOUT, ERROR_PIPE_NOT_CONNECTED}) {
    calls_.fail("CreateFileW", error);
    EXPECT_EQ(pipe_platform::try_open(name_, &client_), Open::Failed) << error;
  }
  EXPECT_FALSE(client_);
}

TEST_F(PipeCalls, AServerThatStopsWaitingCancelsAndWaitsForTheEnd) {
  server_ = serve();
  stop_.set();
  calls_.take();
  EXPECT_FALSE(connect_pipe(server_, &stop_, LONG_MS));
  EXPECT_THAT(calls_.take(), ElementsAre("ConnectNamedPipe overlapped", "CancelIoEx one",
                                         "GetOverlappedResult waiting"));
  EXPECT_FALSE(connect_pipe(server_, nullptr, 0));
  EXPECT_THAT(calls_.take(), ElementsAre("ConnectNamedPipe overlapped", "CancelIoEx one",
                                         "GetOverlappedResult waiting"));
}

TEST_F(PipeCalls, AClientThatCameBeforeItsServerWaitedIsThere) {
  server_ = serve();
  calls_.take();
  calls_.fail("ConnectNamedPipe", ERROR_PIPE_CONNECTED);
  EXPECT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  EXPECT_THAT(calls_.take(), ElementsAre("ConnectNamedPipe overlapped"));
}

TEST_F(PipeCalls, AnInstanceWhoseClientHasLeftIsMadeReadyForTheNext) {
  server_ = serve();
  calls_.take();
  calls_.fail("ConnectNamedPipe", ERROR_NO_DATA);
  EXPECT_FALSE(connect_pipe(server_, nullptr, LONG_MS));
  EXPECT_THAT(calls_.take(), ElementsAre("ConnectNamedPipe overlapped", "DisconnectNamedPipe "));
}

TEST_F(PipeCalls, WhatNeverBeganIsNotCancelled) {
  server_ = serve();
  calls_.take();
  calls_.fail("ConnectNamedPipe", ERROR_INVALID_HANDLE);
  EXPECT_FALSE(connect_pipe(server_, nullptr, LONG_MS));
  EXPECT_THAT(calls_.take(), ElementsAre("ConnectNamedPipe overlapped"));
}

TEST_F(PipeCalls, AReadThatIsStoppedOrOutOfTimeIsCancelledAndWaitedFor) {
  connect_ends();
  stop_.set();
  calls_.take();
  EXPECT_FALSE(read_frame(server_, &frame_, &stop_, LONG_MS));
  EXPECT_THAT(calls_.take(), CANCELLED_AND_WAITED_FOR);
  EXPECT_FALSE(read_frame(client_, &frame_, nullptr, 0));
  EXPECT_THAT(calls_.take(), CANCELLED_AND_WAITED_FOR);
  wait_client_close(server_, nullptr, 0);
  EXPECT_THAT(calls_.take(), CANCELLED_AND_WAITED_FOR);
}

TEST_F(PipeCalls, AWriteThatIsStoppedIsCancelledAndWaitedFor) {
  connect_ends();
  const Bytes largest = encode_request({Verb::SetRelays, Bytes(PAYLOAD_MAX, 'r')});
  stop_.set();
  do {
    calls_.take();
  } while (write_frame(client_, largest, &stop_, LONG_MS));
  EXPECT_THAT(calls_.take(),
              ElementsAre("WriteFile 16396", "CancelIoEx one", "GetOverlappedResult waiting"));
}

TEST_F(PipeCalls, AnOperationWhoseEndIsAFailureHasFailed) {
  connect_ends();
  ASSERT_TRUE(write_frame(client_, request(), nullptr, LONG_MS));
  calls_.fail("GetOverlappedResult", ERROR_BROKEN_PIPE);
  EXPECT_FALSE(read_frame(server_, &frame_, nullptr, LONG_MS));
  EXPECT_FALSE(write_frame(client_, request(), nullptr, LONG_MS));
  EXPECT_TRUE(frame_.empty());
}

}  // namespace
