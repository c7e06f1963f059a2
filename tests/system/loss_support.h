// A bad network between a client and its host, what is streamed through it, and what is to be true
// of that, whichever system the two are on. One thread.
#pragma once

#include <string>

#include "tests/support/lossy_proxy.h"
#include "tests/system/system_support.h"

namespace system_test {

// 5 % lost, 2 % held back, 1 % twice and 5 ms late, each way, from a fixed seed.
class LossyPath {
 public:
  explicit LossyPath(int host_port);

  std::string host_address() const;  // what the client is to call the host by

  // Ten seconds of the moving picture that `moving` paints on the painter's screen, then the same
  // standing still, then Ctrl+C for the client.
  void stream(ChildProcess& client, ChildProcess& moving, RootPainter& painter);

  // The stream has taken this path, nothing of it is unfit to decode, and its last picture is the
  // one that stood still.
  void expect_a_sound_stream(const nlohmann::json& report, const std::filesystem::path& recording,
                             const RgbPicture& last) const;

 private:
  LossyProxy proxy_;
  RgbPicture stood_still_;
};

}  // namespace system_test
