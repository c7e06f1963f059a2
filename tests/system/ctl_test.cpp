// lunderhaze-ctl itself, on a machine of its own, against a real pipe whose answers are the test's.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <thread>

#include "control/ipc_transport.h"
#include "control/linux/unix_socket.h"
#include "tests/support/child_process.h"
#include "tests/support/linux/forked.h"
#include "tests/support/linux/machine_lab.h"
#include "tests/support/temp_directory.h"

namespace system_test {
namespace {

using host_service::Request;
using host_service::Result;
using host_service::Status;
using host_service::Verb;
using namespace std::chrono_literals;

constexpr char SECRET[] = "correct horse battery staple";
constexpr char DEVICE_KEY[] = "000102030405060708090a0b0c0d0e0f101112131415161718191a1b1c1d1e1f";

// Serves the service's pipe inside a lab, one request after the other.
class PipeService {
 public:
  // Nothing: it breaks off.
  using Answer = std::function<std::optional<Result>(const Request& request, std::uint32_t client)>;

  PipeService(const MachineLab& lab, Answer answer)
      : answer_(std::move(answer)), thread_([this, &lab] { lab.call([this] { serve(); }); }) {}
  ~PipeService() {
    stop_.set();
    thread_.join();
  }
  PipeService(const PipeService&) = delete;
  PipeService& operator=(const PipeService&) = delete;

  std::vector<Request> requests() const {
    const std::lock_guard lock(mutex_);
    return requests_;
  }

 private:
  void serve() {
    using namespace host_service;
    Pipe next = create_pipe(SERVICE_PIPE, true, true);
    EXPECT_TRUE(next) << "cannot serve " << SERVICE_PIPE;
    constexpr std::uint32_t UNTIL_STOPPED_MS = 600'000;
    while (next && connect_pipe(next, &stop_, UNTIL_STOPPED_MS)) {
      Pipe pipe = std::move(next);
      next = create_pipe(SERVICE_PIPE, true, false);
      exchange(pipe);
    }
  }
  void exchange(host_service::Pipe& pipe) {
    using namespace host_service;
    EXPECT_TRUE(pipe_client(pipe, true, nullptr, 0));
    std::vector<unsigned char> frame;
    Request request;
    ASSERT_TRUE(read_frame(pipe, &frame, &stop_, PIPE_LIMIT_MS));
    ASSERT_TRUE(decode_request(frame.data(), frame.size(), &request));
    const std::optional<Result> result = answer_(request, pipe_client_id(pipe));
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(request);
    }
    if (!result) return;
    EXPECT_TRUE(write_frame(pipe, encode_response(request.verb, result->status, result->text),
                            &stop_, PIPE_LIMIT_MS));
    wait_client_close(pipe, &stop_, PIPE_LIMIT_MS);
  }

  Answer answer_;
  WakeEvent stop_{WakeEvent::Reset::Manual};
  mutable std::mutex mutex_;
  std::vector<Request> requests_;
  std::thread thread_;
};

// As a service without trouble answers.
Result obedient(const Request& request, std::uint32_t) {
  switch (request.verb) {
    case Verb::Status:
      return {Status::Ok,
              "service running; worker PID 4242; session 1; starts 3; last exit: none\n"
              "stored 9999 60 20000 1 1 1 1 1400\n"
              "worker running; code 7K2M-Q9TX; idle\n"
              "defaults 9876 60 20000 1 1 1 1 1400\n"
              "pairing closed; password unset; lockout inactive\n"
              "device " +
                  std::string(DEVICE_KEY) + " AAAA-BBBB \x1b[2Jdesk\n"};
    case Verb::PairingOpen:
      return {Status::Ok, "012345"};
    default:
      return {Status::Ok, "completed"};
  }
}

class CtlTest : public testing::Test {
 protected:
  void SetUp() override {
    if (!MachineLab::missing().empty()) GTEST_SKIP() << MachineLab::missing();
    lab_.emplace();
  }

  void serve(PipeService::Answer answer = obedient) { service_.emplace(*lab_, std::move(answer)); }
  static std::vector<std::string> command(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), LUND_BIN_DIR "/lunderhaze-ctl");
    return arguments;
  }
  RunResult ctl(const std::vector<std::string>& arguments) const {
    return lab_->run(command(arguments));
  }
  // With this as standard input.
  RunResult ctl_reading(const std::string& input, const std::string& arguments) const {
    const TempDirectory directory;
    write_file(directory / "input", input);
    return lab_->run(
        {"sh", "-c",
         LUND_BIN_DIR "/lunderhaze-ctl " + arguments + " <" + (directory / "input").string()});
  }
  static void holds(const RunResult& result, int status, const std::string& text) {
    EXPECT_EQ(result.status, status) << result.output;
    EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
  }
  std::vector<Verb> verbs() const {
    std::vector<Verb> verbs;
    for (const Request& request : service_->requests()) verbs.push_back(request.verb);
    return verbs;
  }
  std::string last_payload() const {
    const std::vector<Request> requests = service_->requests();
    return {requests.back().payload.begin(), requests.back().payload.end()};
  }

  std::optional<MachineLab> lab_;
  std::optional<PipeService> service_;
};

const std::vector<std::vector<std::string>> COMMANDS = {
    {"status"},
    {"pair"},
    {"close-pairing"},
    {"set-password"},
    {"clear-password"},
    {"devices"},
    {"remove-device", "desk"},
    {"set-relays", "lunderhaze-relay://a.example#k"},
    {"get"},
    {"set", "port=1"},
    {"restart"},
    {"stop"},
};

TEST_F(CtlTest, AnOrdinaryUserIsDeniedInWordsWhateverHeAsks) {
  serve();
  for (const std::vector<std::string>& arguments : COMMANDS) {
    std::vector<std::string> as_nobody = {"setpriv", "--reuid=65534", "--regid=65534",
                                          "--clear-groups"};
    for (const std::string& word : command(arguments)) as_nobody.push_back(word);
    holds(lab_->run(as_nobody), 3, "only an administrator may rule the service: run it as root");
  }
  EXPECT_TRUE(verbs().empty());
}

TEST_F(CtlTest, WithoutAServiceItIsUnavailableInWords) {
  holds(ctl({"status"}), 4, "lunderhaze-ctl: service unavailable or access denied: start it with");
  const RunResult json = ctl({"pair", "--json"});
  EXPECT_EQ(json.status, 4);
  EXPECT_NE(json.output.find("\"result\": \"unavailable\""), std::string::npos) << json.output;
}

TEST_F(CtlTest, AProgramThatIsNotTheSystemsOwnIsToldNothing) {
  const Signal listening;
  Forked impostor([&] {
    int status = 1;
    lab_->call([&] {
      UnixAddress address;
      if (mkdir("/run/lunderhaze", 0700) != 0 ||
          chown("/run/lunderhaze", ORDINARY_USER, ORDINARY_USER) != 0 || !become_ordinary() ||
          !address.fill(host_service::SERVICE_PIPE))
        return;
      const Descriptor socket = listen_at(address, 4);
      listening.give();
      const Descriptor peer = accept_peer(socket.get(), UINT64_MAX, nullptr);
      char byte;
      status = receive_some(peer.get(), &byte, 1, UINT64_MAX, nullptr) == 1 ? 2 : 0;
    });
    return status;
  });
  listening.take();
  holds(ctl_reading(SECRET, "set-password --stdin"), 3,
        "untrusted service endpoint: the program that serves the service's pipe is not the "
        "system's own, and was told nothing");
  EXPECT_EQ(impostor.wait(), 0);
}

TEST_F(CtlTest, AWrongCommandLineAsksNothing) {
  serve();
  for (const std::vector<std::string>& arguments :
       std::vector<std::vector<std::string>>{{},
                                             {"dance"},
                                             {"status", "more"},
                                             {"pair", "--seconds", "x"},
                                             {"remove-device"},
                                             {"set"},
                                             {"set-relays", "--none", "a"},
                                             {"restart", "--restart"},
                                             {"--jason", "status"}})
    EXPECT_EQ(ctl(arguments).status, 1);
  const RunResult password = ctl({"set-password", SECRET});
  holds(password, 1, "a password is never an argument");
  EXPECT_EQ(password.output.find(SECRET), std::string::npos);
  holds(ctl_reading(SECRET, "set-password"), 1, "standard input is no terminal: --stdin");
  EXPECT_TRUE(verbs().empty());
  holds(ctl({"--version"}), 0, "Lunderhaze ");
}

TEST_F(CtlTest, EachCommandIsOneRequestOrTwoOfTheService) {
  serve();
  holds(ctl({"status"}), 0, "AAAA-BBBB  " + std::string(DEVICE_KEY) + "  \"?[2Jdesk\"\n");
  holds(ctl({"pair", "--seconds", "30"}), 0, "PIN 012345, for 30 seconds or one device\n");
  EXPECT_EQ(last_payload(), std::string("\x1e\0\0\0", 4));
  holds(ctl({"close-pairing"}), 0, "Pairing is closed\n");
  holds(ctl({"clear-password"}), 0, "There is no pairing password any more\n");
  holds(ctl({"devices"}), 0, "\"?[2Jdesk\"\n");
  holds(ctl({"remove-device", "?[2Jdesk"}), 0, "Removed: AAAA-BBBB");
  EXPECT_EQ(last_payload().substr(0, 3), std::string("\0\1\2", 3));
  holds(ctl({"get", "port"}), 0, "port=9999\n");
  holds(ctl({"set", "fps=30", "--restart"}), 0, "fps=30\n");
  holds(ctl({"restart"}), 0, "The worker restarts\n");
  holds(ctl({"stop"}), 0, "The worker and the service stop\n");
  using enum Verb;
  EXPECT_EQ(verbs(),
            (std::vector{Status, PairingOpen, PairingClose, ClearPassword, Status, Status,
                         RemoveDevice, Status, Status, SetSettings, Verb9, Status, Verb9, Stop}));
}

TEST_F(CtlTest, WhatIsRefusedHasItsExitStatus) {
  serve();
  holds(ctl({"pair", "--seconds", "29"}), 2, "pairing is open for 30 to 300 seconds");
  holds(ctl({"set", "fps=30", "port=0"}), 2, "port must be 1 to 65535, a UDP port");
  holds(ctl({"get", "colour"}), 2, "there is no setting \"colour\"");
  holds(ctl({"remove-device", "tablet"}), 7, "no paired device answers to \"tablet\"");
  holds(ctl({"set-relays", "/nonexistent"}), 2, "argument 1 is neither a link");
  holds(ctl_reading("", "set-relays -"), 2, "there is no link: --none removes all");
  EXPECT_EQ(verbs(), std::vector{Verb::Status});
}

TEST_F(CtlTest, WhatTheServiceRefusesHasItsExitStatus) {
  std::atomic<Status> answer{};
  serve([&answer](const Request&, std::uint32_t) {
    return Result{answer, "what the service says"};
  });
  struct Case {
    Status status;
    int exit;
  };
  for (const Case& one :
       {Case{Status::Invalid, 2}, Case{Status::Denied, 3}, Case{Status::Unavailable, 4},
        Case{Status::Persistence, 5}, Case{Status::Failed, 6}}) {
    answer = one.status;
    for (const std::vector<std::string>& arguments : COMMANDS)
      if (arguments[0] != "set-password")
        holds(ctl(arguments), one.exit, "lunderhaze-ctl: what the service says");
  }
}

TEST_F(CtlTest, AServiceThatBreaksOffIsAFailure) {
  serve([](const Request&, std::uint32_t) -> std::optional<Result> { return std::nullopt; });
  holds(ctl({"clear-password"}), 6, "bounded IPC request failed: the service broke off");
}

TEST_F(CtlTest, RelaysComeFromFilesArgumentsAndStandardInput) {
  serve();
  const TempDirectory directory;
  write_file(directory / "links", "\nlunderhaze-relay://file.example#k1\r\n\n");
  const RunResult result = ctl_reading("lunderhaze-relay://input.example:7#k2\n",
                                       "set-relays " + (directory / "links").string() +
                                           " - 'lunderhaze-relay://argument.example#k3'");
  holds(result, 0, "1  file.example:9877\n2  input.example:7\n3  argument.example:9877\nStored");
  EXPECT_EQ(last_payload(),
            "lunderhaze-relays-v1\nlunderhaze-relay://file.example:9877#k1\n"
            "lunderhaze-relay://input.example:7#k2\nlunderhaze-relay://argument.example:9877#k3\n");
  holds(ctl({"set-relays", "--none"}), 0, "no relay servers\n");
  EXPECT_EQ(last_payload(), "lunderhaze-relays-v1\n");
}

TEST_F(CtlTest, EveryCommandAnswersWithOneJsonObject) {
  serve();
  for (const std::vector<std::string>& arguments : COMMANDS) {
    std::vector<std::string> words = arguments;
    words.push_back("--json");
    if (arguments[0] == "set-password") continue;
    if (arguments[0] == "remove-device") words[1] = DEVICE_KEY;
    const RunResult result = ctl(words);
    EXPECT_EQ(result.status, 0) << result.output;
    EXPECT_EQ(nlohmann::json::parse(result.output)["result"], "done") << result.output;
  }
  const RunResult password = ctl_reading(SECRET, "--json set-password --stdin");
  EXPECT_EQ(nlohmann::json::parse(password.output).dump(), R"({"result":"done"})");
}

// ---- The password

std::string process_file(std::uint32_t pid, const char* name) {
  return file_content("/proc/" + std::to_string(pid) + "/" + name);
}

TEST_F(CtlTest, ThePasswordIsOnNoCommandLineAndInNoEnvironmentOrOutput) {
  std::string seen = "not asked";
  serve([&seen](const Request& request, std::uint32_t client) {
    seen = process_file(client, "cmdline") + process_file(client, "environ");
    return obedient(request, client);
  });
  const RunResult result =
      ctl_reading(std::string(SECRET) + "\nanother line\n", "set-password --stdin");
  holds(result, 0, "The pairing password is set\n");
  EXPECT_EQ(last_payload(), SECRET);
  EXPECT_NE(seen.find("set-password"), std::string::npos);
  EXPECT_EQ((seen + result.output).find(SECRET), std::string::npos);
}

TEST_F(CtlTest, ThePasswordIsTypedTwiceWithoutAnEcho) {
  serve();
  ChildProcess program(lab_->inside(command({"set-password"})), {},
                       ChildProcess::Streams::Terminal);
  ASSERT_TRUE(program.wait_for_output("New pairing password: ", 20s)) << program.output();
  program.type(std::string(SECRET) + "\n");
  ASSERT_TRUE(program.wait_for_output("The same again: ", 20s)) << program.output();
  program.type(std::string(SECRET) + "\n");
  EXPECT_EQ(program.wait(20s), 0) << program.output();
  EXPECT_EQ(program.output(),
            "New pairing password: \r\nThe same again: \r\nThe pairing password is set\r\n");
  EXPECT_EQ(last_payload(), SECRET);
}

TEST_F(CtlTest, ATypingErrorChangesNothing) {
  serve();
  ChildProcess program(lab_->inside(command({"set-password"})), {},
                       ChildProcess::Streams::Terminal);
  ASSERT_TRUE(program.wait_for_output("New pairing password: ", 20s)) << program.output();
  program.type(std::string(SECRET) + "\nother\n");
  EXPECT_EQ(program.wait(20s), 2);
  EXPECT_NE(program.output().find("the two passwords differ; nothing was changed"),
            std::string::npos);
  EXPECT_EQ(program.output().find(SECRET), std::string::npos);
  EXPECT_TRUE(verbs().empty());
}

}  // namespace
}  // namespace system_test
