// Pipes as sockets between real processes.
#include "control/ipc_transport.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <functional>

#include "connection/secure.h"
#include "control/linux/unix_socket.h"
#include "tests/support/ipc_pipes.h"
#include "tests/support/linux/forked.h"
#include "tests/support/linux/process_image.h"

namespace {

using namespace host_service;
namespace fs = std::filesystem;
using Bytes = std::vector<unsigned char>;

// A client without any of the library's.
class RawPeer {
 public:
  explicit RawPeer(const std::string& name) : socket_(unix_socket()) {
    UnixAddress address;
    connected_ = address.fill(name) && connect(socket_.get(), address.get(), address.size()) == 0;
  }
  bool connected() const { return connected_; }

 private:
  Descriptor socket_;
  bool connected_;
};

class IpcSockets : public IpcPipes {
 protected:
  const TempDirectory& directory_ = place_.directory();
};

TEST_F(IpcSockets, APathLongerThanASocketsNameWorks) {
  const fs::path deep = directory_ / std::string(150, 'd');
  const std::string name = deep / "pipe";
  Pipe server = create_pipe(name, false, true);
  ASSERT_TRUE(server);
  EXPECT_TRUE(fs::is_socket(name));
  Pipe client = open_pipe(name, nullptr, LONG_MS);
  EXPECT_TRUE(connect_pipe(server, nullptr, LONG_MS));
  EXPECT_TRUE(pipe_server(client, static_cast<std::uint32_t>(getpid())));
}

// ---- Names and instances

TEST_F(IpcSockets, ANameIsAFileOfRootsAloneAndGoesWithItsLastInstance) {
  server_ = serve();
  ASSERT_TRUE(server_);
  struct stat file {
  }, directory{};
  ASSERT_EQ(stat(name_.c_str(), &file), 0);
  ASSERT_EQ(stat((directory_ / "run").c_str(), &directory), 0);
  EXPECT_EQ(file.st_mode & 07777, 0600u);
  EXPECT_EQ(directory.st_mode & 07777, 0700u);
  Pipe second = serve(false);
  server_ = Pipe();
  EXPECT_TRUE(fs::is_socket(name_));
  second = Pipe();
  EXPECT_EQ(entry_count(directory_ / "run"), 0u);
}

TEST_F(IpcSockets, ThePlaceOfAKilledServerIsTaken) {
  const Signal up;
  Forked killed([&] {
    const Pipe pipe = serve();
    up.give();
    pause();
    return 0;
  });
  up.take();
  ASSERT_TRUE(fs::is_socket(name_));
  EXPECT_FALSE(serve());
  killed.end();
  ASSERT_TRUE(fs::is_socket(name_));
  connect_ends();
  EXPECT_TRUE(pipe_server(client_, static_cast<std::uint32_t>(getpid())));
}

TEST_F(IpcSockets, APipeIsNotMadeWhereOthersCouldReplaceIt) {
  const fs::path open_to_all = directory_ / "open";
  fs::create_directory(open_to_all);
  EXPECT_FALSE(create_pipe(open_to_all / "pipe", true, true));
  fs::permissions(open_to_all, fs::perms::all);
  EXPECT_FALSE(create_pipe(open_to_all / "run/pipe", true, true));
  EXPECT_FALSE(create_pipe("pipe", true, true));
  EXPECT_FALSE(create_pipe("", true, true));
  EXPECT_FALSE(open_pipe("", nullptr, LONG_MS));
}

// ---- What it leaves behind

TEST_F(IpcSockets, AnExchangeLeavesNoSecretInTheMemoryOfEitherEnd) {
  // Made where it is wanted, so that nothing else in the process' memory is like it.
  const auto write_secret = [](auto* out, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) out[i] = static_cast<char>('a' + (i * i + 5 * i) % 26);
  };
  constexpr std::size_t SIZE = 48;
  const Signal holds, looked, done, over;
  Forked client([&] {
    Request asked{Verb::SetPassword, Bytes(SIZE)};
    write_secret(asked.payload.data(), SIZE);
    holds.give();
    looked.take();
    Result result = transact(name_, asked, nullptr);
    const bool right = result.text.size() == SIZE;
    lund_secure_wipe(asked.payload.data(), SIZE);
    lund_secure_wipe(result.text.data(), result.text.size());
    done.give();
    over.take();
    return right ? 0 : 1;
  });
  Forked server([&] {
    Pipe pipe = serve();
    Bytes frame;
    std::string text(SIZE, '\0');
    if (!connect_pipe(pipe, nullptr, LONG_MS) || !read_frame(pipe, &frame, nullptr, LONG_MS))
      return 1;
    lund_secure_wipe(frame.data(), frame.size());
    write_secret(text.data(), SIZE);
    frame = encode_response(Verb::SetPassword, Status::Ok, text);
    if (!write_frame(pipe, frame, nullptr, LONG_MS)) return 2;
    lund_secure_wipe(text.data(), SIZE);
    lund_secure_wipe(frame.data(), frame.size());
    done.give();
    over.take();
    return 0;
  });
  Bytes secret(SIZE);
  write_secret(secret.data(), SIZE);
  // Freeing memory writes over its start, which hides what it held from nobody.
  secret.erase(secret.begin(), secret.begin() + SIZE / 2);
  holds.take();
  EXPECT_TRUE(image_holds(client.pid(), secret));
  looked.give();
  done.take();
  done.take();
  EXPECT_FALSE(image_holds(client.pid(), secret));
  EXPECT_FALSE(image_holds(server.pid(), secret));
  over.give();
  over.give();
  EXPECT_EQ(client.wait(), 0);
  EXPECT_EQ(server.wait(), 0);
}

// ---- Whom to trust

TEST_F(IpcSockets, EachEndKnowsTheOthersProcess) {
  server_ = serve();
  const auto self = static_cast<std::uint32_t>(getpid());
  const Signal done;
  Forked child([&] {
    Pipe pipe = open_pipe(name_, nullptr, LONG_MS);
    const bool right = pipe_server(pipe, self) && pipe_server(pipe, 0) &&
                       !pipe_server(pipe, self + 1) && pipe_server_id(pipe) == self &&
                       pipe_client_id(pipe) == 0 && !pipe_client(pipe, true, nullptr, 0);
    done.take();
    return right ? 0 : 1;
  });
  ASSERT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  EXPECT_EQ(pipe_client_id(server_), static_cast<std::uint32_t>(child.pid()));
  EXPECT_EQ(pipe_server_id(server_), 0u);
  EXPECT_FALSE(pipe_server(server_, 0));
  EXPECT_TRUE(pipe_client(server_, true, nullptr, 0));
  done.give();
  EXPECT_EQ(child.wait(), 0);
  EXPECT_FALSE(pipe_client(server_, true, nullptr, 0));
  EXPECT_EQ(pipe_client_id(server_), 0u);
}

TEST_F(IpcSockets, AWorkerIsTheVeryProcessInItsSession) {
  server_ = serve();
  const Signal done;
  const auto client = [&] {
    const Pipe pipe = open_pipe(name_, nullptr, LONG_MS);
    done.take();
    return 0;
  };
  const auto sleeper = [] {
    pause();
    return 0;
  };
  Forked worker(client), other(sleeper);
  ASSERT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  const Process process = Process::open(static_cast<std::uint32_t>(worker.pid()));
  const Process another = Process::open(static_cast<std::uint32_t>(other.pid()));
  std::uint32_t session = 0;
  ASSERT_TRUE(system_process(process, &session));
  EXPECT_TRUE(pipe_client(server_, false, &process, session));
  EXPECT_FALSE(pipe_client(server_, false, &process, session + 1));
  EXPECT_FALSE(pipe_client(server_, false, &another, session));
  EXPECT_FALSE(pipe_client(server_, false, nullptr, session));
  done.give();
  EXPECT_EQ(worker.wait(), 0);
  EXPECT_FALSE(pipe_client(server_, false, &process, session));
}

TEST_F(IpcSockets, AnOrdinaryUserCannotOpenAChannel) {
  server_ = serve();
  chmod(directory_.path().c_str(), 0755);
  Forked user([this] {
    if (!become_ordinary()) return 1;
    return open_pipe(name_, nullptr, LONG_MS) || RawPeer(name_).connected() ? 2 : 0;
  });
  EXPECT_EQ(user.wait(), 0);
  // Nor by a path to the file that its directory doesn't guard.
  const fs::path linked = directory_ / "linked";
  fs::create_hard_link(name_, linked);
  Forked again([&] {
    if (!become_ordinary()) return 1;
    return RawPeer(linked).connected() ? 2 : 0;
  });
  EXPECT_EQ(again.wait(), 0);
}

TEST_F(IpcSockets,
       AnOrdinaryUsersConnectionIsNobodysHoweverItCameAboutAndWhateverItsUserTurnsInto) {
  server_ = serve();
  chmod(directory_.path().c_str(), 0755);
  chmod((directory_ / "run").c_str(), 0755);
  chmod(name_.c_str(), 0666);
  const Signal done;
  Forked user([&] {
    if (setresuid(ORDINARY_USER, ORDINARY_USER, 0) != 0) return 1;
    const RawPeer peer(name_);
    if (!peer.connected() || setresuid(0, 0, 0) != 0) return 2;
    done.take();
    return 0;
  });
  ASSERT_TRUE(connect_pipe(server_, nullptr, LONG_MS));
  EXPECT_FALSE(pipe_client(server_, true, nullptr, 0));
  EXPECT_EQ(pipe_client_id(server_), 0u);
  done.give();
  EXPECT_EQ(user.wait(), 0);
}

TEST_F(IpcSockets, AProcessThatServesTheNameFirstKeepsTheServiceFromItAndIsNotItsServer) {
  const Signal up;
  Forked guesser([&] {
    Pipe pipe = serve();
    up.give();
    connect_pipe(pipe, nullptr, LONG_MS);
    pause();
    return 0;
  });
  up.take();
  EXPECT_FALSE(serve());
  EXPECT_FALSE(serve(false));
  client_ = open_pipe(name_, nullptr, LONG_MS);
  EXPECT_TRUE(client_);
  EXPECT_FALSE(pipe_server(client_, static_cast<std::uint32_t>(getpid())));
  EXPECT_TRUE(pipe_server(client_, static_cast<std::uint32_t>(guesser.pid())));
}

// Somebody's own socket by that name, without the lock.
struct Impostor {
  explicit Impostor(const std::string& name) {
    UnixAddress address;
    if (address.fill(name)) socket = listen_at(address, 4);
  }
  Descriptor socket;
};

TEST_F(IpcSockets, AServerThatDoesNotKeepToTheLockIsSeenToo) {
  fs::create_directory(directory_ / "run");
  fs::permissions(directory_ / "run", fs::perms::owner_all);
  const Impostor impostor(name_);
  ASSERT_GE(impostor.socket.get(), 0);
  EXPECT_FALSE(serve());
  EXPECT_TRUE(fs::is_socket(name_));
}

TEST_F(IpcSockets, AnOrdinaryUsersServerIsUntrustedAndToldNothing) {
  chmod(directory_.path().c_str(), 0777);
  const std::string name = directory_ / "guessed";
  const Signal up;
  Forked impostor([&] {
    if (!become_ordinary()) return 1;
    const Impostor served(name);
    up.give();
    const Descriptor peer = accept_peer(served.socket.get(), UINT64_MAX, nullptr);
    char byte;
    // Its client closes without having said anything.
    return receive_some(peer.get(), &byte, 1, UINT64_MAX, nullptr) == 0 ? 0 : 2;
  });
  up.take();
  const Result result =
      transact(name, {Verb::SetPassword, {'s', 'e', 'c', 'r', 'e', 't'}}, nullptr);
  EXPECT_EQ(result.status, Status::Denied);
  EXPECT_EQ(result.text, "untrusted service endpoint");
  EXPECT_EQ(impostor.wait(), 0);
}

TEST_F(IpcSockets, AReusedProcessIdIsNotTakenForThePeer) {
  // The connection outlives the peer, held by a child of it, so that only the process tells.
  const auto hold_and_end = [](const Signal& end) {
    const Signal held;
    const pid_t holder = fork();
    if (holder == 0) {
      held.give();
      pause();
      _exit(0);
    }
    // The thread sanitizer gives what is forked a thread, which must not take the id chosen later.
    held.take();
    end.take();
  };
  const auto sleeper = [] {
    pause();
    return 0;
  };
  const auto as_client = [&] {
    const Signal end;
    Pipe server = serve();
    Forked peer([&] {
      const Pipe pipe = open_pipe(name_, nullptr, LONG_MS);
      hold_and_end(end);
      return 0;
    });
    const pid_t id = peer.pid();
    if (!connect_pipe(server, nullptr, LONG_MS)) return 1;
    if (!pipe_client(server, true, nullptr, 0)) return 2;
    end.give();
    peer.wait();
    if (!choose_next_id(id)) return NO_NAMESPACE;
    Forked second(sleeper);
    if (second.pid() != id) return 3;
    const Process process = Process::open(static_cast<std::uint32_t>(id));
    std::uint32_t session = 0;
    if (!system_process(process, &session)) return 4;
    if (pipe_client_id(server) != static_cast<std::uint32_t>(id)) return 5;  // that is, still open
    if (pipe_client(server, true, nullptr, 0)) return 6;
    if (pipe_client(server, false, &process, session)) return 7;
    return 0;
  };
  const auto as_server = [&] {
    const Signal end, up;
    Forked peer([&] {
      Pipe pipe = serve();
      up.give();
      connect_pipe(pipe, nullptr, LONG_MS);
      hold_and_end(end);
      return 0;
    });
    const pid_t pid = peer.pid();
    const auto id = static_cast<std::uint32_t>(pid);
    up.take();
    Pipe client = open_pipe(name_, nullptr, LONG_MS);
    if (!pipe_server(client, id)) return 11;
    end.give();
    peer.wait();
    if (!choose_next_id(pid)) return NO_NAMESPACE;
    Forked second(sleeper);
    if (second.pid() != pid) return 12;
    if (!system_process(Process::open(id), nullptr)) return 13;
    if (pipe_server_id(client) != id) return 14;
    if (pipe_server(client, id) || pipe_server(client, 0)) return 15;
    return 0;
  };
  for (const std::function<int()>& end :
       {std::function<int()>(as_client), std::function<int()>(as_server)}) {
    const int result = in_pid_namespace(end);
    if (result == NO_NAMESPACE) GTEST_SKIP() << "no namespace of process ids here";
    EXPECT_EQ(result, 0);
  }
}

}  // namespace
