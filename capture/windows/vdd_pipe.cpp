#include "capture/windows/vdd_pipe.h"

#include "control/windows/handles.h"

namespace {

using Driver = VirtualDisplayDriver;

constexpr const wchar_t* PIPE_NAME = LR"(\\.\pipe\MTTVirtualDisplayPipe)";

class VddPipe final : public Driver::ControlPipe {
 public:
  VddPipe(Handle pipe, Handle done, DWORD limit_ms)
      : pipe_(std::move(pipe)), done_(std::move(done)), limit_ms_(limit_ms) {}

  bool write(std::u16string_view message) override {
    OVERLAPPED transfer = begin();
    const auto size = static_cast<DWORD>(message.size() * sizeof(char16_t));
    DWORD written = 0;
    return finish(WriteFile(pipe_.get(), message.data(), size, nullptr, &transfer), &transfer,
                  &written)
               .ok &&
           written == size;
  }

  Waiting peek() override {
    DWORD waiting = 0;
    if (!PeekNamedPipe(pipe_.get(), nullptr, 0, nullptr, &waiting, nullptr)) return Waiting::Failed;
    return waiting > 0 ? Waiting::Something : Waiting::Nothing;
  }

  Driver::Result read(std::size_t max_bytes) override {
    OVERLAPPED transfer = begin();
    std::string dropped(max_bytes, '\0');
    DWORD count = 0;
    return finish(ReadFile(pipe_.get(), dropped.data(), static_cast<DWORD>(dropped.size()), nullptr,
                           &transfer),
                  &transfer, &count);
  }

 private:
  OVERLAPPED begin() const {
    OVERLAPPED transfer = {};
    transfer.hEvent = done_.get();
    return transfer;
  }

  // The system is done with the transfer, and its buffer, when this returns.
  Driver::Result finish(BOOL at_once, OVERLAPPED* transfer, DWORD* count) const {
    if (!at_once && GetLastError() != ERROR_IO_PENDING) return {false, GetLastError()};
    if (WaitForSingleObject(done_.get(), limit_ms_) != WAIT_OBJECT_0)
      CancelIoEx(pipe_.get(), transfer);
    if (!GetOverlappedResult(pipe_.get(), transfer, count, TRUE)) return {false, GetLastError()};
    return {true, 0};
  }

  const Handle pipe_;
  const Handle done_;  // manual-reset, as overlapped transfers want it
  const DWORD limit_ms_;
};

}  // namespace

Driver::Result wait_for_vdd_pipe(std::uint32_t timeout_ms) {
  if (WaitNamedPipeW(PIPE_NAME, timeout_ms)) return {true, 0};
  return {false, GetLastError()};
}

std::unique_ptr<Driver::ControlPipe> open_vdd_pipe(std::uint32_t transfer_limit_ms) {
  // Whoever has made the pipe may learn who asks, and must not act in that name: the host may be
  // the system itself.
  Handle pipe = owned_file(
      CreateFileW(PIPE_NAME, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                  FILE_FLAG_OVERLAPPED | SECURITY_SQOS_PRESENT | SECURITY_IDENTIFICATION, nullptr));
  Handle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  DWORD mode = PIPE_READMODE_MESSAGE;
  if (!pipe || !done || !SetNamedPipeHandleState(pipe.get(), &mode, nullptr, nullptr))
    return nullptr;
  return std::make_unique<VddPipe>(std::move(pipe), std::move(done), transfer_limit_ms);
}
