// Two ends of a clipboard session in one process: what each has logged, and a wire between them
// that, as a network does, takes packets at once and delivers them from another thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "streams/clipboard_bridge.h"

class Lines {
 public:
  ClipboardLog log() {
    return [this](const std::string& line) {
      const std::lock_guard lock(mutex_);
      lines_.push_back(line);
      added_.notify_all();
    };
  }
  bool wait_for(const std::string& part) {
    std::unique_lock lock(mutex_);
    return added_.wait_for(lock, std::chrono::seconds(20), [&] {
      for (const std::string& line : lines_) {
        if (line.find(part) != std::string::npos) return true;
      }
      return false;
    });
  }
  std::vector<std::string> all() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable added_;
  std::vector<std::string> lines_;
};

class Wire {
 public:
  explicit Wire(ClipboardSync& to) : to_(to), thread_([this] { deliver(); }) {}
  ~Wire() {
    {
      const std::lock_guard lock(mutex_);
      cut_ = true;
    }
    added_.notify_all();
    thread_.join();
  }
  Wire(const Wire&) = delete;
  Wire& operator=(const Wire&) = delete;

  ClipboardSync::Send send() {
    return [this](const std::uint8_t* packet, std::uint64_t length) {
      const std::lock_guard lock(mutex_);
      packets_.emplace_back(packet, packet + length);
      added_.notify_all();
      return true;
    };
  }

 private:
  void deliver() {
    std::unique_lock lock(mutex_);
    for (;;) {
      added_.wait(lock, [this] { return cut_ || !packets_.empty(); });
      if (cut_) return;
      const std::vector<std::uint8_t> packet = std::move(packets_.front());
      packets_.pop_front();
      lock.unlock();
      to_.receive(packet.data(), packet.size());
      lock.lock();
    }
  }

  ClipboardSync& to_;
  std::mutex mutex_;
  std::condition_variable added_;
  std::deque<std::vector<std::uint8_t>> packets_;
  bool cut_ = false;
  std::thread thread_;
};

// Connects two bridges, and parts them before either may end.
class BridgeSession {
 public:
  static constexpr std::uint64_t PAYLOAD = 1'376;

  BridgeSession(ClipboardSync& a, ClipboardSync& b, std::uint32_t session = 9)
      : a_(a), b_(b), to_a_(a), to_b_(b) {
    a_.session_up(session, PAYLOAD, to_b_.send());
    b_.session_up(session, PAYLOAD, to_a_.send());
  }
  ~BridgeSession() {
    a_.session_down(0);
    b_.session_down(0);
  }
  BridgeSession(const BridgeSession&) = delete;
  BridgeSession& operator=(const BridgeSession&) = delete;

 private:
  ClipboardSync& a_;
  ClipboardSync& b_;
  Wire to_a_;
  Wire to_b_;
};
