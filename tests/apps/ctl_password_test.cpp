#include "apps/ctl/password.h"

#include <gtest/gtest.h>

#include <deque>
#include <optional>

#include "tests/apps/ctl_support.h"
#include "tests/support/allocation_counter.h"
#include "tests/support/temp_directory.h"
#include "tests/support/wiped.h"

namespace ctl {
namespace {

using host_service::Status;
using host_service::Verb;

// One who types these, without seeing them.
class TypedPasswords final : public PasswordSource {
 public:
  explicit TypedPasswords(std::deque<std::string> lines) : lines_(std::move(lines)) {}
  bool read(const std::string& prompt, Password* password) override {
    prompts += prompt;
    password->clear();
    if (lines_.empty()) return false;
    for (const char byte : lines_.front()) password->add(byte);
    lines_.pop_front();
    return true;
  }
  bool blind() const override { return true; }

  std::string prompts;

 private:
  std::deque<std::string> lines_;
};

std::string payload_text(const ScriptedService& service) {
  return {service.payloads.at(0).begin(), service.payloads.at(0).end()};
}

Outcome set_typed(ScriptedService& service, std::deque<std::string> lines) {
  TypedPasswords passwords(std::move(lines));
  return set_password(service, passwords);
}

TEST(CtlPassword, IsTypedTwiceAndSentOnce) {
  ScriptedService service;
  service.ok();
  TypedPasswords passwords({"correct horse", "correct horse"});
  const Outcome outcome = set_password(service, passwords);
  EXPECT_EQ(outcome.text, "The pairing password is set\n");
  EXPECT_EQ(passwords.prompts, "New pairing password: The same again: ");
  EXPECT_EQ(service.asked, std::vector{Verb::SetPassword});
  EXPECT_EQ(payload_text(service), "correct horse");
  EXPECT_EQ(json_text(outcome).find("correct"), std::string::npos);
}

TEST(CtlPassword, ThatIsNoneIsRefusedBeforeTheServiceIsAsked) {
  const std::string longest(host_service::PASSWORD_MAX, 'a');
  struct Case {
    std::deque<std::string> lines;
    const char* error;
  };
  for (const Case& one : {
           Case{{"one", "other"}, "the two passwords differ"},
           Case{{"one", "one "}, "the two passwords differ"},
           Case{{"", ""}, "the password is empty"},
           Case{{}, "no password was given"},
           Case{{"one"}, "no password was given a second time"},
           Case{{longest + "a", longest + "a"}, "longer than 256 bytes"},
           Case{{"\xFF\xFE", "\xFF\xFE"}, "not UTF-8"},
           Case{{std::string("a\0b", 3), std::string("a\0b", 3)}, "not UTF-8"},
       }) {
    ScriptedService service;
    const Outcome outcome = set_typed(service, one.lines);
    EXPECT_EQ(outcome.exit, Exit::Invalid) << one.error;
    EXPECT_NE(outcome.error.find(one.error), std::string::npos) << outcome.error;
    EXPECT_TRUE(outcome.error.ends_with("; nothing was changed")) << outcome.error;
    EXPECT_TRUE(service.asked.empty());
  }
  ScriptedService service;
  service.ok();
  EXPECT_TRUE(set_typed(service, {longest, longest}).done());
  EXPECT_EQ(payload_text(service), longest);
}

TEST(CtlPassword, ThatTheWorkerCannotSetIsAFailure) {
  ScriptedService service;
  service.answer(Status::Failed, "password operation failed");
  EXPECT_EQ(set_typed(service, {"one", "one"}).exit, Exit::Failed);
}

TEST(CtlPassword, TheRequestIsWipedBeforeItIsFreed) {
  ScriptedService service;
  service.ok();
  std::optional<DeletionWatch> watch;
  service.during = [&](const host_service::Request& request) {
    watch.emplace(request.payload.data(), request.payload.size());
  };
  set_typed(service,
            {"a password of more than a few bytes", "a password of more than a few bytes"});
  ASSERT_TRUE(watch);
  EXPECT_TRUE(watch->deleted());
  EXPECT_TRUE(watch->deleted_wiped());
}

TEST(CtlPassword, LeavesNothingInItsRecord) {
  alignas(Password) unsigned char memory[sizeof(Password)] = {};
  auto* password = new (memory) Password;
  for (const char byte : std::string("topsecret")) password->add(byte);
  const std::string_view secret = "topsecret";
  const std::span secret_bytes{reinterpret_cast<const std::uint8_t*>(secret.data()), secret.size()};
  ASSERT_TRUE(contains(bytes_in(memory), secret_bytes));
  password->~Password();
  EXPECT_FALSE(contains(bytes_in(memory), secret_bytes));
}

// ---- A line of a file

class CtlPasswordLineTest : public testing::Test {
 protected:
  using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

  File file(const std::string& bytes) {
    write_file(directory_ / "input", bytes);
    return {std::fopen((directory_ / "input").string().c_str(), "rb"), std::fclose};
  }
  // The first line of a file of these bytes; nothing at its end.
  std::optional<std::string> line(const std::string& bytes) {
    const File input = file(bytes);
    Password password;
    if (!passwords_of(input.get())->read("", &password)) return std::nullopt;
    return std::string(password.bytes()) + (password.too_long() ? "..." : "");
  }

 private:
  TempDirectory directory_;
};

TEST_F(CtlPasswordLineTest, EndsAtTheLineFeedOrTheFilesEnd) {
  EXPECT_EQ(line("one\ntwo\n"), "one");
  EXPECT_EQ(line("one"), "one");
  EXPECT_EQ(line("one\r\n"), "one");
  EXPECT_EQ(line("o\rn\re\r\r\n"), "o\rn\re\r");
  EXPECT_EQ(line(" one \n"), " one ");
  EXPECT_EQ(line("\n"), "");
  EXPECT_EQ(line(""), std::nullopt);
}

TEST_F(CtlPasswordLineTest, NeverTakesMoreThanThereIsRoomFor) {
  const std::string longest(host_service::PASSWORD_MAX, 'a');
  EXPECT_EQ(line(longest + "\n"), longest);
  EXPECT_EQ(line(longest + std::string(100'000, 'b') + "\n"), longest + "...");
}

TEST_F(CtlPasswordLineTest, OneLineIsEnoughWhereNobodyTypesBlindly) {
  const File input = file("one\n");
  ScriptedService service;
  service.ok();
  EXPECT_TRUE(set_password(service, *passwords_of(input.get())).done());
  EXPECT_EQ(payload_text(service), "one");
}

}  // namespace
}  // namespace ctl
