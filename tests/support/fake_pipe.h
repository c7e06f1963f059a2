// The local pipes with the other end played by a script, on the virtual clock: a read that finds
// nothing lasts as long as it may. Linking the object library test_fake_pipe puts it in place of
// the platform's pipes. Without threads.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <vector>

#include "control/ipc_transport.h"

struct FakePipe {
  using Bytes = std::vector<unsigned char>;

  std::uint32_t server = 4711;  // process id at the other end; 0 when it can't be told
  bool trusted = true;          // it is the system's own, and alive
  std::deque<Bytes> incoming;   // frames to be read, in order
  std::vector<Bytes> written;
  bool writes_fail = false;
  std::vector<std::uint32_t> limits_ms;     // of each read and write
  std::function<void(const Bytes&)> reply;  // sees each written frame
  std::function<void()> on_idle;            // before a read that finds nothing
  int identity_checks = 0;
};

host_service::Pipe fake_pipe(FakePipe& script);
