// Looks at everything that a host needs of this computer, while one runs as well as without, and
// changes nothing. Each check has a thread of its own, since what it asks may hang; the whole takes
// 10 s at most, whatever hangs.
#pragma once

#include <cstdint>
#include <optional>

#include "apps/lunderhaze/doctor_checks.h"

struct Examination {
  std::uint16_t port = 0;  // that was looked at
  Findings findings;
  bool something_hangs = false;  // its thread still waits: the process can't end in order
};

// Without a port: the running host's, or the one that a host listens on by default.
Examination examine(std::optional<std::uint16_t> port);
