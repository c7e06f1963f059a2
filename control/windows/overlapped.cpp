#include "control/windows/overlapped.h"

#include <algorithm>

#include "connection/clock.h"

namespace {

// Rounded up: a wait that ends early is a time-out before its time.
DWORD time_left_ms(std::uint64_t deadline_us) {
  const std::uint64_t now_us = lund_now_us();
  const std::uint64_t left_us = deadline_us > now_us ? deadline_us - now_us : 0;
  return static_cast<DWORD>(
      std::min<std::uint64_t>(left_us / 1'000 + (left_us % 1'000 != 0), INFINITE - 1));
}

bool is_first(HANDLE done, std::uint64_t deadline_us, const WakeEvent* stop) {
  HANDLE events[] = {done, nullptr};
  if (stop != nullptr) events[1] = reinterpret_cast<HANDLE>(stop->native_handle());
  return WaitForMultipleObjects(stop != nullptr ? 2 : 1, events, FALSE,
                                time_left_ms(deadline_us)) == WAIT_OBJECT_0;
}

// What `start` begins; the bytes it moved.
template <class Start>
bool run(HANDLE handle, std::uint64_t deadline_us, const WakeEvent* stop, DWORD* moved,
         Start start) {
  const Handle done(CreateEventW(nullptr, TRUE, FALSE, nullptr));
  if (!done) return false;
  OVERLAPPED operation{};
  operation.hEvent = done.get();
  if (!start(&operation)) {
    if (GetLastError() != ERROR_IO_PENDING) return false;
    if (!is_first(done.get(), deadline_us, stop)) {
      CancelIoEx(handle, &operation);
      GetOverlappedResult(handle, &operation, moved, TRUE);
      return false;
    }
  }
  return GetOverlappedResult(handle, &operation, moved, TRUE) != FALSE;
}

}  // namespace

std::size_t read_some(HANDLE handle, void* bytes, std::size_t size, std::uint64_t deadline_us,
                      const WakeEvent* stop) {
  DWORD moved = 0;
  return run(handle, deadline_us, stop, &moved,
             [&](OVERLAPPED* operation) {
               return ReadFile(handle, bytes, static_cast<DWORD>(size), nullptr, operation);
             })
             ? moved
             : 0;
}

std::size_t write_some(HANDLE handle, const void* bytes, std::size_t size,
                       std::uint64_t deadline_us, const WakeEvent* stop) {
  DWORD moved = 0;
  return run(handle, deadline_us, stop, &moved,
             [&](OVERLAPPED* operation) {
               return WriteFile(handle, bytes, static_cast<DWORD>(size), nullptr, operation);
             })
             ? moved
             : 0;
}

bool wait_for_client(HANDLE pipe, std::uint64_t deadline_us, const WakeEvent* stop) {
  DWORD unused = 0;
  DWORD refused = ERROR_SUCCESS;
  if (run(pipe, deadline_us, stop, &unused, [&](OVERLAPPED* operation) {
        const BOOL connected = ConnectNamedPipe(pipe, operation);
        refused = connected ? ERROR_SUCCESS : GetLastError();
        return connected;
      }))
    return true;
  if (refused == ERROR_NO_DATA) DisconnectNamedPipe(pipe);
  return refused == ERROR_PIPE_CONNECTED;
}
