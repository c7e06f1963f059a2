// The program behind tests/support/windows/neighbour.h.
#include <chrono>
#include <iostream>
#include <sstream>
#include <thread>
#include <utility>
#include <vector>

#include "control/windows/overlapped.h"
#include "control/windows/security_attributes.h"
#include "control/windows/wide_text.h"

namespace {

constexpr std::uint64_t NEVER = UINT64_MAX;

class Program {
 public:
  std::string obey(const std::string& order) {
    std::istringstream words(order);
    std::string verb, name, how;
    std::size_t count = 0;
    words >> verb;
    if (verb == "serve" && words >> name) {
      words >> how;
      return serve(to_wide(name), how == "plain");
    }
    if (verb == "open" && words >> name) return open(to_wide(name));
    if (verb == "accept") return say(wait_for_client(pipe_.get(), NEVER, nullptr));
    if (verb == "mutex" && words >> name) return hold(to_wide(name));
    if (verb == "close") {
      pipe_.reset();
      others_.clear();
      return "yes";
    }
    int value = 0;
    if (verb == "send" && words >> count >> value) return send(count, value);
    if (verb == "trickle" && words >> count >> value) return trickle(count, value);
    if (verb == "read" && words >> count) return read(count);
    return "no";
  }

 private:
  static std::string say(bool done) { return done ? "yes" : "no"; }

  std::string serve(const std::wstring& name, bool plain) {
    SecurityAttributes system(L"O:SYG:SYD:P(A;;GA;;;SY)(A;;GRGW;;;BA)");
    if (pipe_) others_.push_back(std::move(pipe_));
    pipe_ = owned_file(CreateNamedPipeW(
        name.c_str(), PIPE_ACCESS_DUPLEX | FILE_FLAG_OVERLAPPED | FILE_FLAG_FIRST_PIPE_INSTANCE,
        PIPE_REJECT_REMOTE_CLIENTS, 4, 4'096, 4'096, 0, plain ? nullptr : system.get()));
    return pipe_ ? std::to_string(reinterpret_cast<std::uintptr_t>(pipe_.get())) : "no";
  }
  std::string open(const std::wstring& name) {
    pipe_ = owned_file(CreateFileW(name.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr,
                                   OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr));
    return say(static_cast<bool>(pipe_));
  }
  std::string hold(const std::wstring& name) {
    mutex_.reset(CreateMutexW(nullptr, TRUE, name.c_str()));
    return say(mutex_ && GetLastError() != ERROR_ALREADY_EXISTS);
  }
  std::string send(std::size_t count, int value) {
    const std::vector<char> bytes(count, static_cast<char>(value));
    return say(write_some(pipe_.get(), bytes.data(), count, NEVER, nullptr) == count);
  }
  std::string trickle(std::size_t count, int value) {
    std::thread([this, count, value] {
      const char one = static_cast<char>(value);
      for (std::size_t i = 0; i < count; ++i) {
        if (write_some(pipe_.get(), &one, 1, NEVER, nullptr) != 1) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
      }
    }).detach();
    return "yes";
  }
  std::string read(std::size_t count) {
    std::vector<char> bytes(count);
    std::size_t done = 0;
    while (done < count) {
      const std::size_t got =
          read_some(pipe_.get(), bytes.data() + done, count - done, NEVER, nullptr);
      if (got == 0) break;
      done += got;
    }
    return std::to_string(done);
  }

  Handle pipe_, mutex_;
  std::vector<Handle> others_;  // that were served before
};

}  // namespace

int main() {
  Program program;
  for (std::string order; std::getline(std::cin, order);)
    std::cout << program.obey(order) << std::endl;
  std::_Exit(0);  // whatever a thread is still busy with
}
