// The system's quality-of-service flows (qWAVE), whose header in mingw-w64 lacks some of its names.
#pragma once

#include "control/windows/handles.h"

using QOS_FLOWID = UINT32;
using PQOS_FLOWID = QOS_FLOWID*;
// After the names above, which it uses.
#include <qos2.h>

inline constexpr DWORD QOS_NON_ADAPTIVE_FLOW = 2;

// The header has it twice: the name of the enumeration is wanted, not the macro without a type.
#undef QOSSetOutgoingDSCPValue

using QosHandle = Owned<NullableKind<HANDLE, QOSCloseHandle>>;
