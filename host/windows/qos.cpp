#include "host/windows/qos.h"

namespace {

template <class Function>
void load(HMODULE library, const char* name, Function** function) {
  *function = reinterpret_cast<Function*>(reinterpret_cast<void*>(GetProcAddress(library, name)));
}

}  // namespace

QosCalls load_qos(const wchar_t* library) {
  QosCalls calls;
  const HMODULE loaded = LoadLibraryExW(library, nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32);
  if (loaded == nullptr) return calls;
  load(loaded, "QOSCreateHandle", &calls.create_handle);
  load(loaded, "QOSCloseHandle", &calls.close_handle);
  load(loaded, "QOSAddSocketToFlow", &calls.add_socket_to_flow);
  load(loaded, "QOSRemoveSocketFromFlow", &calls.remove_socket_from_flow);
  load(loaded, "QOSSetFlow", &calls.set_flow);
  return calls;
}
