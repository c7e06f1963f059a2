// The system's quality-of-service flows (qWAVE). Its library is asked for by name: on a server it
// comes with a feature of its own, and a program that imports it doesn't start without. Any thread.
#pragma once

#include "control/windows/handles.h"

// mingw-w64's header lacks some of its names.
using QOS_FLOWID = UINT32;
using PQOS_FLOWID = QOS_FLOWID*;
// After the names above, which it uses.
#include <qos2.h>

inline constexpr DWORD QOS_NON_ADAPTIVE_FLOW = 2;

// The header has it twice: the name of the enumeration is wanted, not the macro without a type.
#undef QOSSetOutgoingDSCPValue

struct QosCalls {
  decltype(&QOSCreateHandle) create_handle = nullptr;
  decltype(&QOSCloseHandle) close_handle = nullptr;
  decltype(&QOSAddSocketToFlow) add_socket_to_flow = nullptr;
  decltype(&QOSRemoveSocketFromFlow) remove_socket_from_flow = nullptr;
  decltype(&QOSSetFlow) set_flow = nullptr;

  explicit operator bool() const {
    return create_handle && close_handle && add_socket_to_flow && remove_socket_from_flow &&
           set_flow;
  }
};

// Those of a library in the system's directory, which stays loaded; false where one is missing.
QosCalls load_qos(const wchar_t* library);

// The system's own. Link-time seam: tests put theirs in its place.
const QosCalls& system_qos();

using QosHandle =
    Owned<NullableKind<HANDLE, [](HANDLE handle) { system_qos().close_handle(handle); }>>;
