#include "tests/support/windows/machine/call_record.h"

namespace {

using namespace call_record;
using Of = SystemCalls::Of;

HANDLE WINAPI create_pipe(const wchar_t* name, DWORD open_mode, DWORD pipe_mode, DWORD instances,
                          DWORD out_bytes, DWORD in_bytes, DWORD timeout_ms,
                          SECURITY_ATTRIBUTES* attributes) {
  static auto* const call = real(L"kernel32", "CreateNamedPipeW", &create_pipe);
  const Fate fate = tell(Of::Pipes, "CreateNamedPipeW",
                         "open " + hex(open_mode) + " mode " + hex(pipe_mode) + " instances " +
                             std::to_string(instances) + " buffers " + std::to_string(out_bytes) +
                             " " + std::to_string(in_bytes) + " timeout " +
                             std::to_string(timeout_ms) + " " + descriptor_of(attributes));
  return fate.fails ? INVALID_HANDLE_VALUE
                    : call(name, open_mode, pipe_mode, instances, out_bytes, in_bytes, timeout_ms,
                           attributes);
}

BOOL WINAPI connect_client(HANDLE pipe, OVERLAPPED* operation) {
  static auto* const call = real(L"kernel32", "ConnectNamedPipe", &connect_client);
  return tell(Of::Pipes, "ConnectNamedPipe", operation != nullptr ? "overlapped" : "waiting").fails
             ? FALSE
             : call(pipe, operation);
}

BOOL WINAPI disconnect(HANDLE pipe) {
  static auto* const call = real(L"kernel32", "DisconnectNamedPipe", &disconnect);
  return tell(Of::Pipes, "DisconnectNamedPipe", "").fails ? FALSE : call(pipe);
}

BOOL WINAPI cancel(HANDLE handle, OVERLAPPED* operation) {
  static auto* const call = real(L"kernel32", "CancelIoEx", &cancel);
  return tell(Of::Pipes, "CancelIoEx", operation != nullptr ? "one" : "all").fails
             ? FALSE
             : call(handle, operation);
}

BOOL WINAPI result_of(HANDLE handle, OVERLAPPED* operation, DWORD* moved, BOOL wait) {
  static auto* const call = real(L"kernel32", "GetOverlappedResult", &result_of);
  return tell(Of::Pipes, "GetOverlappedResult", wait ? "waiting" : "as it is").fails
             ? FALSE
             : call(handle, operation, moved, wait);
}

}  // namespace

extern "C" {
decltype(&create_pipe) __imp_CreateNamedPipeW = create_pipe;
decltype(&connect_client) __imp_ConnectNamedPipe = connect_client;
decltype(&disconnect) __imp_DisconnectNamedPipe = disconnect;
decltype(&cancel) __imp_CancelIoEx = cancel;
decltype(&result_of) __imp_GetOverlappedResult = result_of;
}
