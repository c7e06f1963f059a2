// What the tests of pipes share: a name, both of its ends in this process, and times. Limits that a
// test expects to run into are short; those that it expects not to, far beyond what a busy machine
// takes.
#pragma once

#include <gtest/gtest.h>

#include <chrono>

#include "control/ipc_transport.h"
#include "tests/support/pipe_place.h"

class IpcPipes : public testing::Test {
 protected:
  using Bytes = std::vector<unsigned char>;
  using Pipe = host_service::Pipe;
  using milliseconds = std::chrono::milliseconds;

  static constexpr std::uint32_t LONG_MS = 60'000;
  static constexpr milliseconds AT_ONCE{30'000};  // as told from LONG_MS
  static constexpr std::uint32_t SHORT_MS = 500;

  class Stopwatch {
   public:
    milliseconds elapsed() const {
      return std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start_);
    }

   private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  };

  void SetUp() override {
    if (!PipePlace::possible()) GTEST_SKIP() << PipePlace::WHY_NOT;
  }
  static Bytes request() {
    return host_service::encode_request({host_service::Verb::SetRelays, Bytes(100, 'r')});
  }
  Pipe serve(bool first_instance = true) {
    return host_service::create_pipe(name_, true, first_instance);
  }
  // A pair within this process.
  void connect_ends() {
    server_ = serve();
    client_ = host_service::open_pipe(name_, nullptr, LONG_MS);
    ASSERT_TRUE(host_service::connect_pipe(server_, nullptr, LONG_MS));
    ASSERT_TRUE(client_);
  }

  const PipePlace place_;
  const std::string name_ = place_ / "pipe";
  Pipe server_, client_;
  WakeEvent stop_{WakeEvent::Reset::Manual};
  Bytes frame_;
};
