// A service by script: what it answers to each verb, and what it was asked.
#pragma once

#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "apps/ctl/commands.h"

namespace ctl {

inline constexpr const char* DESK_KEY =
    "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";
inline constexpr const char* PHONE_KEY =
    "ff0102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

inline std::string device_row(const std::string& key, const std::string& code,
                              const std::string& name) {
  return "device " + key + " " + code + " " + name + "\n";
}

// Key code of a key in hexadecimal digits.
inline std::string code_of_hex(const char* hex) {
  std::uint8_t key[LUND_KEY_SIZE];
  char code[LUND_KEY_CODE_TEXT];
  EXPECT_EQ(lund_hex_decode(key, sizeof key, hex), 0);
  lund_key_code(code, key);
  return code;
}

inline const std::string SERVICE_LINES =
    "service running; worker PID 4242; session 1; starts 3; last exit: code 3, the desktop was "
    "lost\n"
    "stored 9999 60 20000 1 1 1 1 1400\n";
inline std::string worker_lines(const std::string& state = "idle") {
  return "worker running; code 7K2M-Q9TX; " + state +
         "\n"
         "defaults 9876 60 20000 1 1 1 1 1400\n"
         "pairing closed; password unset; lockout inactive\n";
}

class ScriptedService final : public ServiceLink {
 public:
  host_service::Result ask(const host_service::Request& request) override {
    asked.push_back(request.verb);
    payloads.push_back(request.payload);
    if (during) during(request);
    if (answers.empty()) {
      ADD_FAILURE() << "asked once too often: verb " << static_cast<int>(request.verb);
      return {};
    }
    host_service::Result answer = answers.front();
    answers.pop_front();
    return answer;
  }
  ScriptedService& ok(const std::string& text = "completed") {
    return answer(host_service::Status::Ok, text);
  }
  ScriptedService& answer(host_service::Status status, const std::string& text) {
    answers.push_back({status, text});
    return *this;
  }

  std::deque<host_service::Result> answers;
  std::vector<host_service::Verb> asked;
  std::vector<std::vector<unsigned char>> payloads;
  std::function<void(const host_service::Request&)> during;
};

}  // namespace ctl
