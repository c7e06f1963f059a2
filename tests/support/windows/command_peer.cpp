#include "tests/support/command_peer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <utility>

#include "control/windows/command_pipe.h"
#include "control/windows/overlapped.h"
#include "tests/support/temp_directory.h"

namespace {

constexpr std::uint64_t NEVER = UINT64_MAX;
constexpr char IMPOSTORS_NAME[] = "0123456789abcdef0123456789abcdef";

std::wstring pipe_path(const std::string& digits) {
  command_pipe::Name name{};
  std::copy_n(digits.begin(), std::min(digits.size(), command_pipe::NAME_DIGITS), name.begin());
  return command_pipe::path(name);
}

HANDLE handle_of(std::intptr_t value) {
  return reinterpret_cast<HANDLE>(value);
}

bool write_all(HANDLE pipe, const std::string& bytes) {
  return write_some(pipe, bytes.data(), bytes.size(), NEVER, nullptr) == bytes.size();
}

}  // namespace

CommandPeer::CommandPeer(const std::filesystem::path& directory) {
  const std::wstring path = pipe_path(file_content(directory / command_pipe::FILE_NAME));
  HANDLE pipe = INVALID_HANDLE_VALUE;
  do {
    pipe = CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       FILE_FLAG_OVERLAPPED, nullptr);
  } while (pipe == INVALID_HANDLE_VALUE && GetLastError() == ERROR_PIPE_BUSY &&
           WaitNamedPipeW(path.c_str(), 60'000));
  EXPECT_NE(pipe, INVALID_HANDLE_VALUE) << GetLastError();
  peer_ = reinterpret_cast<std::intptr_t>(pipe);
}

CommandPeer::~CommandPeer() {
  CloseHandle(handle_of(peer_));
}

bool CommandPeer::write(const std::string& bytes) const {
  return write_all(handle_of(peer_), bytes);
}

std::string CommandPeer::read() const {
  std::string all;
  char bytes[256];
  for (std::size_t size; (size = read_some(handle_of(peer_), bytes, sizeof bytes, NEVER, nullptr));)
    all.append(bytes, size);
  return all;
}

// With file and pipe of the test's own user, as a host's are.
CommandImpostor::CommandImpostor(const std::filesystem::path& directory) {
  SecurityAttributes attributes = command_pipe::attributes();
  owned_file(CreateFileW((directory / command_pipe::FILE_NAME).c_str(), GENERIC_WRITE, 0,
                         attributes.get(), CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
  write_file(directory / command_pipe::FILE_NAME, IMPOSTORS_NAME);
  const HANDLE pipe =
      CreateNamedPipeW(pipe_path(IMPOSTORS_NAME).c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED,
                       PIPE_REJECT_REMOTE_CLIENTS, 1, 4'096, 4'096, 0, attributes.get());
  EXPECT_NE(pipe, INVALID_HANDLE_VALUE);
  listener_ = reinterpret_cast<std::intptr_t>(pipe);
}

CommandImpostor::~CommandImpostor() {
  if (listener_ != 0) CloseHandle(handle_of(listener_));
}

bool CommandImpostor::break_off_after(const std::string& bytes) {
  char request[64];
  const bool done = wait_for_client(handle_of(listener_), NEVER, nullptr) &&
                    read_some(handle_of(listener_), request, sizeof request, NEVER, nullptr) > 0 &&
                    write_all(handle_of(listener_), bytes);
  CloseHandle(handle_of(std::exchange(listener_, 0)));
  return done;
}
