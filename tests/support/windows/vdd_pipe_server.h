// A stand-in for the virtual display driver's end of its control pipe: one instance of messages,
// one client after the other. What it does with a client is set before the client comes.
#pragma once

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "control/windows/handles.h"

class VddPipeServer {
 public:
  struct Manner {
    DWORD type = PIPE_TYPE_MESSAGE | PIPE_READMODE_MESSAGE;
    DWORD buffer_bytes = 4096;
    bool reads = true;  // one message of each client
    // On the server's thread, with its end of the pipe.
    std::function<void(HANDLE pipe, const std::string& message)> on_message;
    std::vector<std::string> answers;  // to it, after that
    bool hangs_up = false;  // at once, unread answers and all; otherwise after the client
  };

  VddPipeServer() : VddPipeServer(Manner()) {}
  explicit VddPipeServer(Manner manner)
      : manner_(std::move(manner)),
        pipe_(owned_file(CreateNamedPipeW(
            LR"(\\.\pipe\MTTVirtualDisplayPipe)",
            PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE, manner_.type,
            1, manner_.buffer_bytes, manner_.buffer_bytes, 0, nullptr))),
        stop_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
        done_(CreateEventW(nullptr, TRUE, FALSE, nullptr)),
        answered_(CreateEventW(nullptr, TRUE, FALSE, nullptr)) {
    EXPECT_TRUE(pipe_) << GetLastError();
    thread_ = std::thread([this] { serve(); });
  }
  ~VddPipeServer() {
    SetEvent(stop_.get());
    thread_.join();
  }
  VddPipeServer(const VddPipeServer&) = delete;
  VddPipeServer& operator=(const VddPipeServer&) = delete;

  // What clients wrote, a message each.
  std::vector<std::string> messages() const {
    const std::scoped_lock lock(mutex_);
    return messages_;
  }
  // Until a client has been served as `manner` has it, its hanging up included.
  bool wait_until_answered(DWORD ms = 10'000) const {
    return WaitForSingleObject(answered_.get(), ms) == WAIT_OBJECT_0;
  }

 private:
  void serve() {
    while (let_in()) {
      serve_client();
      SetEvent(answered_.get());
      // A read ends when the client goes.
      char rest[16];
      if (!manner_.hangs_up && manner_.reads)
        finish([&](OVERLAPPED* wait) {
          return ReadFile(pipe_.get(), rest, sizeof(rest), nullptr, wait);
        });
      if (!manner_.reads) WaitForSingleObject(stop_.get(), INFINITE);
      DisconnectNamedPipe(pipe_.get());
    }
  }

  // False at the end.
  bool let_in() {
    // ERROR_NO_DATA: a client that has gone already; what it wrote can be read.
    return finish([&](OVERLAPPED* wait) { return ConnectNamedPipe(pipe_.get(), wait); }) ||
           GetLastError() == ERROR_NO_DATA;
  }

  void serve_client() {
    if (!manner_.reads) return;
    std::string message(512, '\0');
    DWORD size = 0;
    if (!finish(
            [&](OVERLAPPED* wait) {
              return ReadFile(pipe_.get(), message.data(), 512, nullptr, wait);
            },
            &size))
      return;
    message.resize(size);
    {
      const std::scoped_lock lock(mutex_);
      messages_.push_back(message);
    }
    if (manner_.on_message) manner_.on_message(pipe_.get(), message);
    for (const std::string& answer : manner_.answers)
      finish([&](OVERLAPPED* wait) {
        return WriteFile(pipe_.get(), answer.data(), static_cast<DWORD>(answer.size()), nullptr,
                         wait);
      });
    if (manner_.hangs_up) DisconnectNamedPipe(pipe_.get());
  }

  // False when the transfer failed or the server is to end.
  template <class Begin>
  bool finish(Begin begin, DWORD* count = nullptr) {
    OVERLAPPED wait = {};
    wait.hEvent = done_.get();
    DWORD unused = 0;
    if (!begin(&wait)) {
      if (GetLastError() == ERROR_PIPE_CONNECTED) return true;
      if (GetLastError() != ERROR_IO_PENDING) return false;
    }
    const HANDLE events[] = {stop_.get(), done_.get()};
    if (WaitForMultipleObjects(2, events, FALSE, INFINITE) == WAIT_OBJECT_0)
      CancelIoEx(pipe_.get(), &wait);
    return GetOverlappedResult(pipe_.get(), &wait, count ? count : &unused, TRUE) != FALSE;
  }

  const Manner manner_;
  const Handle pipe_;
  const Handle stop_;
  const Handle done_;
  const Handle answered_;
  mutable std::mutex mutex_;
  std::vector<std::string> messages_;
  std::thread thread_;
};
