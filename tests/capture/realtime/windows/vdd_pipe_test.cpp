// The driver's control pipe, with a stand-in for the driver at its other end.
#include "capture/windows/vdd_pipe.h"

#include <gmock/gmock.h>

#include "tests/support/windows/vdd_pipe_server.h"

using testing::ElementsAre;

namespace {

using Pipe = VirtualDisplayDriver::ControlPipe;
using Waiting = Pipe::Waiting;

constexpr std::u16string_view COMMAND{u"SETDISPLAYCOUNT 3\0", 18};  // its zero is part of it

std::string bytes_of(std::u16string_view text) {
  return {reinterpret_cast<const char*>(text.data()), text.size() * sizeof(char16_t)};
}

// As soon as there is more than nothing.
Waiting await(Pipe& pipe) {
  for (int i = 0; i < 1000; ++i) {
    const Waiting waiting = pipe.peek();
    if (waiting != Waiting::Nothing) return waiting;
    Sleep(10);
  }
  return Waiting::Nothing;
}

TEST(VddPipe, WithoutADriverThereIsNone) {
  const VirtualDisplayDriver::Result result = wait_for_vdd_pipe(1);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.error, unsigned{ERROR_FILE_NOT_FOUND});
  EXPECT_EQ(open_vdd_pipe(), nullptr);
}

TEST(VddPipe, OneThatIsFreeIsThereAtOnce) {
  const VddPipeServer server;
  EXPECT_TRUE(wait_for_vdd_pipe(1).ok);
}

TEST(VddPipe, OneThatIsBusyIsToldFromNone) {
  const VddPipeServer server;
  const auto pipe = open_vdd_pipe();
  ASSERT_TRUE(pipe);
  const VirtualDisplayDriver::Result result = wait_for_vdd_pipe(1);
  EXPECT_FALSE(result.ok);
  EXPECT_EQ(result.error, unsigned{ERROR_SEM_TIMEOUT});
  EXPECT_EQ(open_vdd_pipe(), nullptr);
}

TEST(VddPipe, ACommandArrivesAsOneMessage) {
  const VddPipeServer server;
  {
    const auto pipe = open_vdd_pipe();
    ASSERT_TRUE(pipe);
    EXPECT_TRUE(pipe->write(COMMAND));
    ASSERT_TRUE(server.wait_until_answered());
  }
  EXPECT_THAT(server.messages(), ElementsAre(bytes_of(COMMAND)));
}

TEST(VddPipe, NothingWaitsUntilTheDriverAnswers) {
  const VddPipeServer server;
  const auto pipe = open_vdd_pipe();
  ASSERT_TRUE(pipe);
  EXPECT_EQ(pipe->peek(), Waiting::Nothing);
  EXPECT_TRUE(pipe->write(COMMAND));
  ASSERT_TRUE(server.wait_until_answered());
  EXPECT_EQ(pipe->peek(), Waiting::Nothing);
}

// ERROR_MORE_DATA is what a message that is longer than the room for it gives, and no other end.
TEST(VddPipe, AnswersAreReadAsMessages) {
  VddPipeServer::Manner manner;
  manner.answers = {std::string(700, 'a'), "b"};
  const VddPipeServer server(manner);
  const auto pipe = open_vdd_pipe();
  ASSERT_TRUE(pipe);
  ASSERT_TRUE(pipe->write(COMMAND));
  ASSERT_TRUE(server.wait_until_answered());

  ASSERT_EQ(await(*pipe), Waiting::Something);
  const VirtualDisplayDriver::Result first = pipe->read(512);
  EXPECT_FALSE(first.ok);
  EXPECT_EQ(first.error, unsigned{ERROR_MORE_DATA});
  ASSERT_EQ(pipe->peek(), Waiting::Something);
  EXPECT_TRUE(pipe->read(512).ok);
  ASSERT_EQ(pipe->peek(), Waiting::Something);
  EXPECT_TRUE(pipe->read(512).ok);
  EXPECT_EQ(pipe->peek(), Waiting::Nothing);
}

TEST(VddPipe, ADriverThatHangsUpIsNoticed) {
  VddPipeServer::Manner manner;
  manner.hangs_up = true;
  const VddPipeServer server(manner);
  const auto pipe = open_vdd_pipe();
  ASSERT_TRUE(pipe);
  ASSERT_TRUE(pipe->write(COMMAND));
  ASSERT_TRUE(server.wait_until_answered());
  EXPECT_EQ(await(*pipe), Waiting::Failed);
  EXPECT_FALSE(pipe->read(512).ok);
  EXPECT_FALSE(pipe->write(COMMAND));
}

TEST(VddPipe, AFormerClientsEndFreesItForTheNext) {
  const VddPipeServer server;
  for (int i = 0; i < 3; ++i) {
    ASSERT_TRUE(wait_for_vdd_pipe(1000).ok) << GetLastError();
    const auto pipe = open_vdd_pipe();
    ASSERT_TRUE(pipe);
    EXPECT_TRUE(pipe->write(COMMAND));
  }
}

TEST(VddPipe, OneOfBytesIsNotTheDrivers) {
  VddPipeServer::Manner manner;
  manner.type = PIPE_TYPE_BYTE;
  const VddPipeServer server(manner);
  EXPECT_EQ(open_vdd_pipe(), nullptr);
}

// Anyone can make a pipe of the driver's name where there is no driver.
TEST(VddPipe, WhoHasMadeItCannotActAsTheHost) {
  std::optional<SECURITY_IMPERSONATION_LEVEL> level;
  VddPipeServer::Manner manner;
  manner.on_message = [&](HANDLE pipe, const std::string&) {
    ASSERT_TRUE(ImpersonateNamedPipeClient(pipe)) << GetLastError();
    Handle token;
    DWORD size = 0;
    level.emplace();
    EXPECT_TRUE(OpenThreadToken(GetCurrentThread(), TOKEN_QUERY, TRUE, token.receive()));
    EXPECT_TRUE(
        GetTokenInformation(token.get(), TokenImpersonationLevel, &*level, sizeof(*level), &size));
    RevertToSelf();
  };
  {
    const VddPipeServer server(manner);
    const auto pipe = open_vdd_pipe();
    ASSERT_TRUE(pipe);
    EXPECT_TRUE(pipe->write(COMMAND));
    ASSERT_TRUE(server.wait_until_answered());
  }
  EXPECT_EQ(level, SecurityIdentification);
}

TEST(VddPipe, ADriverThatReadsNothingHoldsNobodyUpForLong) {
  VddPipeServer::Manner manner;
  manner.reads = false;
  manner.buffer_bytes = 0;
  const VddPipeServer server(manner);
  const auto pipe = open_vdd_pipe(50);
  ASSERT_TRUE(pipe);
  EXPECT_FALSE(pipe->write(COMMAND));
}

}  // namespace
