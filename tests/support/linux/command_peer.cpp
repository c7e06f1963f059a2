#include "tests/support/command_peer.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace {

int make_socket() {
  return socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

sockaddr_un address_in(const std::filesystem::path& directory) {
  sockaddr_un name{};
  name.sun_family = AF_UNIX;
  std::strncpy(name.sun_path, (directory / "control.sock").c_str(), sizeof name.sun_path - 1);
  return name;
}

bool write_all(int socket, const std::string& bytes) {
  return send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(bytes.size());
}

}  // namespace

CommandPeer::CommandPeer(const std::filesystem::path& directory) : peer_(make_socket()) {
  const sockaddr_un name = address_in(directory);
  EXPECT_EQ(connect(static_cast<int>(peer_), reinterpret_cast<const sockaddr*>(&name), sizeof name),
            0);
}

CommandPeer::~CommandPeer() {
  close(static_cast<int>(peer_));
}

bool CommandPeer::write(const std::string& bytes) const {
  return write_all(static_cast<int>(peer_), bytes);
}

std::string CommandPeer::read() const {
  std::string all;
  char bytes[256];
  for (ssize_t size; (size = recv(static_cast<int>(peer_), bytes, sizeof bytes, 0)) > 0;)
    all.append(bytes, static_cast<std::size_t>(size));
  return all;
}

CommandImpostor::CommandImpostor(const std::filesystem::path& directory)
    : listener_(make_socket()) {
  const sockaddr_un name = address_in(directory);
  const int listener = static_cast<int>(listener_);
  EXPECT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&name), sizeof name), 0);
  EXPECT_EQ(listen(listener, 1), 0);
}

CommandImpostor::~CommandImpostor() {
  close(static_cast<int>(listener_));
}

bool CommandImpostor::break_off_after(const std::string& bytes) {
  const int peer = accept(static_cast<int>(listener_), nullptr, nullptr);
  char request[64];
  const bool done = recv(peer, request, sizeof request, 0) > 0 && write_all(peer, bytes);
  close(peer);
  return done;
}
