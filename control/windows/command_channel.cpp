// The channel is a named pipe whose random name stands in a file of the store. The host keeps that
// file open, so that nobody else can write to it: that makes a live host known from the name that a
// killed one left, and two that start together from each other. File and pipe are made for the user
// alone, and a sender takes a pipe for the host's only if it belongs to whom the file belongs to:
// the names of all pipes can be listed, and one that is free be taken, by everybody.
#include "control/command_channel.h"

#include <array>
#include <cstring>
#include <optional>
#include <thread>
#include <utility>

#include "connection/clock.h"
#include "connection/secure.h"
#include "control/command_exchange.h"
#include "control/wake_event.h"
#include "control/windows/command_pipe.h"
#include "control/windows/object_owner.h"
#include "control/windows/overlapped.h"
#include "control/windows/token.h"

namespace {

using namespace command_exchange;
using command_pipe::Name;

constexpr DWORD BUFFER_BYTES = COMMAND_REQUEST_MAX + 1;  // of each direction
constexpr std::uint32_t PAUSE_MS = 100;                  // when there is no pipe to be had
constexpr std::uint64_t NO_DEADLINE = UINT64_MAX;

std::string system_error(DWORD error) {
  return "error " + std::to_string(error);
}

// To one peer: its deadline and the event, which may be null, end each wait.
struct PipeLink final : Link {
  PipeLink(HANDLE peer, std::uint64_t deadline, const WakeEvent* end)
      : pipe(peer), deadline_us(deadline), stop(end) {}

  std::size_t receive(void* bytes, std::size_t size) const override {
    return read_some(pipe, bytes, size, deadline_us, stop);
  }
  std::size_t send(const void* bytes, std::size_t size) const override {
    return write_some(pipe, bytes, size, deadline_us, stop);
  }

  const HANDLE pipe;
  const std::uint64_t deadline_us;
  const WakeEvent* const stop;
};

class PipeServer final : public Server {
 public:
  explicit PipeServer(Handler handler) : handler_(std::move(handler)) {}
  ~PipeServer() override {
    stop_.set();
    if (thread_.joinable()) thread_.join();
  }

  Start listen_in(const std::filesystem::path& directory, std::string* error) override {
    file_ = owned_file(CreateFileW((directory / command_pipe::FILE_NAME).c_str(), GENERIC_WRITE,
                                   FILE_SHARE_READ, attributes_.get(), CREATE_ALWAYS,
                                   FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file_ && GetLastError() == ERROR_SHARING_VIOLATION) {
      *error = another_host(directory);
      return Start::AnotherHost;
    }
    if (!file_ || !serve_name()) {
      *error = no_channel(directory, system_error(GetLastError()));
      return Start::Failed;
    }
    thread_ = std::thread(&PipeServer::run, this);
    return Start::Running;
  }

 private:
  // The pipe first: whoever finds its name may use it.
  bool serve_name() {
    std::uint8_t random[command_pipe::NAME_DIGITS / 2];
    if (!attributes_ || lund_random_bytes(random, sizeof random) != 0) return false;
    lund_hex_encode(name_.data(), random, sizeof random);
    waiting_ = make_instance(FILE_FLAG_FIRST_PIPE_INSTANCE);
    DWORD written = 0;
    return waiting_ &&
           WriteFile(file_.get(), name_.data(), command_pipe::NAME_DIGITS, &written, nullptr) &&
           written == command_pipe::NAME_DIGITS;
  }

  Handle make_instance(DWORD flags = 0) {
    return owned_file(CreateNamedPipeW(
        command_pipe::path(name_).c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | flags,
        PIPE_TYPE_BYTE | PIPE_READMODE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
        PIPE_UNLIMITED_INSTANCES, BUFFER_BYTES, BUFFER_BYTES, 0, attributes_.get()));
  }

  void run() {
    while (!stop_.wait(0)) {
      if (!waiting_) waiting_ = make_instance();
      if (!waiting_ || !wait_for_client(waiting_.get(), NO_DEADLINE, &stop_)) {
        stop_.wait(PAUSE_MS);
        continue;
      }
      // The next sender connects meanwhile. What this one has still to read outlives its instance.
      const Handle peer = std::exchange(waiting_, make_instance());
      answer(PipeLink(peer.get(), lund_now_us() + PEER_US, &stop_), handler_);
    }
  }

  const Handler handler_;
  SecurityAttributes attributes_ = command_pipe::attributes();
  Handle file_;
  Name name_{};
  Handle waiting_;  // an instance without a peer; once it runs, the thread's
  WakeEvent stop_{WakeEvent::Reset::Manual};
  std::thread thread_;
};

// Of a host that has ended a file may be left: then its name leads nowhere.
Handle open_named_file(const std::filesystem::path& directory, Name* name) {
  Handle file = owned_file(CreateFileW((directory / command_pipe::FILE_NAME).c_str(), GENERIC_READ,
                                       FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                       FILE_ATTRIBUTE_NORMAL, nullptr));
  DWORD read = 0;
  if (!file || !ReadFile(file.get(), name->data(), command_pipe::NAME_DIGITS, &read, nullptr) ||
      read != command_pipe::NAME_DIGITS ||
      std::strspn(name->data(), "0123456789abcdef") != command_pipe::NAME_DIGITS)
    return {};
  return file;
}

}  // namespace

std::unique_ptr<Server> command_exchange::make_server(CommandServer::Handler handler) {
  return std::make_unique<PipeServer>(std::move(handler));
}

CommandResult command_exchange::ask_host(const std::filesystem::path& directory,
                                         const std::string& request, std::string* answer,
                                         std::string* error) {
  const auto fail = [error](const std::string& text) {
    *error = text;
    return CommandResult::Failed;
  };
  Name name{};
  const Handle file = open_named_file(directory, &name);
  if (!file) return CommandResult::NotRunning;
  const std::uint64_t deadline_us = lund_now_us() + SENDER_US;
  const std::wstring path = command_pipe::path(name);
  Handle pipe;
  while (!(pipe = owned_file(CreateFileW(
               path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
               FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr)))) {
    const DWORD code = GetLastError();
    if (code == ERROR_FILE_NOT_FOUND) return CommandResult::NotRunning;
    const std::uint64_t now_us = lund_now_us();
    if (code != ERROR_PIPE_BUSY || now_us >= deadline_us)
      return fail(unreachable(system_error(code)));
    // 0 would stand for the pipe's own limit.
    WaitNamedPipeW(path.c_str(), static_cast<DWORD>((deadline_us - now_us) / 1'000 + 1));
  }
  if (!ObjectOwner(pipe.get(), SE_KERNEL_OBJECT).is_same(ObjectOwner(file.get(), SE_FILE_OBJECT)))
    return fail(unreachable("its pipe is another user's"));
  return ask(PipeLink(pipe.get(), deadline_us, nullptr), request, answer, error);
}
