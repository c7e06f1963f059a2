// Sound from a host to a client, for the system tests: a sound server for the host, a client that
// records, and what the two of them write down. One thread.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tests/support/linux/sound_server.h"
#include "tests/support/wav_file.h"
#include "tests/system/system_support.h"
#include "tests/system/user_support.h"

namespace system_test {

// A line of the host's log, and when it was written, lund_now_us time within a few milliseconds.
struct LogLine {
  std::uint64_t at_us = 0;
  std::string text;
};

class RecordingTest : public SystemTest {
 protected:
  // A small desktop, a host that has this sound server, and a paired client.
  void start(const std::map<std::string, std::string>& sound,
             const std::vector<std::string>& host_arguments = {});

  // A client that records until the end; returns once it has the first picture.
  ChildProcess& start_recording(const std::vector<std::string>& more = {});
  // Waits for a tone at the end of what has been recorded so far, of this piece's length.
  bool hears(double hz, std::chrono::milliseconds length = std::chrono::milliseconds(100));
  // Waits until so much has been recorded, from the first picture on.
  bool records(double seconds);
  // Ends the client, which must be content; then the recording is whole.
  void end_recording();

  // What has been read of it so far.
  WavFile recording_{""};
  std::filesystem::path recording_path() const { return directory_ / "sound.wav"; }

  std::vector<LogLine> log_lines() const;
  // The newest line of the host's log with this in it.
  std::optional<LogLine> logged(const std::string& part) const;
  // Waits for such a line.
  bool logs(const std::string& part) {
    return comes_true([&] { return logged(part).has_value(); });
  }

  // `lunderhaze` with this sub-command, which must succeed; what it says.
  std::string tell_host(const std::vector<std::string>& arguments) const;

 private:
  void SetUp() override;
};

}  // namespace system_test
