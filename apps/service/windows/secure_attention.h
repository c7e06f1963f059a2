// The secure attention sequence (Ctrl+Alt+Del) in software: what sas.dll does for a service, where
// the machine's policy lets services.
#pragma once

#include <optional>
#include <string>

#include "control/windows/handles.h"

struct AttentionCalls {
  using SendSas = void(WINAPI*)(BOOL as_user);
  // Null, with the last error set, when this Windows has none.
  SendSas (*find)();
  // SoftwareSASGeneration: 1 lets services, 3 services and accessibility programs; nothing when the
  // policy isn't set.
  std::optional<DWORD> (*policy)();
};
extern const AttentionCalls SYSTEM_ATTENTION;

std::string send_secure_attention(const AttentionCalls& calls);  // what came of it, in words
