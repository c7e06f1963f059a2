// The calls by which a worker is started in a session, and what becomes of each that fails.
#include "apps/service/windows/worker_launch.h"

#include <gtest/gtest.h>

#include <cstring>

#include "control/windows/command_line.h"
#include "control/windows/wide_text.h"

// After what handles.h includes.
#include <shellapi.h>

namespace {

// Handles are numbers here: what is given out must come back, each once.
class LaunchTest : public testing::Test {
 protected:
  static constexpr DWORD SESSION = 3;

  LaunchTest() {
    calls_.open_token = [this](HANDLE process, DWORD access, HANDLE* token) {
      EXPECT_EQ(process, GetCurrentProcess());
      EXPECT_EQ(access, DWORD{TOKEN_DUPLICATE | TOKEN_QUERY});
      return give("open", token);
    };
    calls_.duplicate_token = [this](HANDLE token, DWORD access, SECURITY_ATTRIBUTES* attributes,
                                    SECURITY_IMPERSONATION_LEVEL, TOKEN_TYPE type, HANDLE* copy) {
      EXPECT_EQ(token, given_.at(0));
      // What starting a process with it, and moving it to a session, each take.
      EXPECT_EQ(access & (TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY),
                DWORD{TOKEN_QUERY | TOKEN_DUPLICATE | TOKEN_ASSIGN_PRIMARY});
      EXPECT_EQ(access & (TOKEN_ADJUST_DEFAULT | TOKEN_ADJUST_SESSIONID),
                DWORD{TOKEN_ADJUST_DEFAULT | TOKEN_ADJUST_SESSIONID});
      EXPECT_EQ(attributes, nullptr);
      EXPECT_EQ(type, TokenPrimary);
      return give("duplicate", copy);
    };
    calls_.set_token = [this](HANDLE token, TOKEN_INFORMATION_CLASS what, void* value, DWORD size) {
      EXPECT_EQ(token, given_.at(1));
      EXPECT_EQ(what, TokenSessionId);
      EXPECT_EQ(size, sizeof(DWORD));
      DWORD session = 0;
      std::memcpy(&session, value, sizeof session);
      EXPECT_EQ(session, SESSION);
      return succeed("session");
    };
    calls_.create_environment = [this](void** block, HANDLE token, BOOL inherit) {
      EXPECT_EQ(token, given_.at(1));
      EXPECT_FALSE(inherit);
      return give("environment", block);
    };
    calls_.destroy_environment = [this](void* block) { return take(block, 'e'); };
    calls_.create_process =
        [this](HANDLE token, const wchar_t* program, wchar_t* line, SECURITY_ATTRIBUTES* process,
               SECURITY_ATTRIBUTES* thread, BOOL inherit, DWORD flags, void* environment,
               const wchar_t* directory, STARTUPINFOW* startup, PROCESS_INFORMATION* made) {
          EXPECT_EQ(token, given_.at(1));
          EXPECT_STREQ(program, L"C:\\Program Files\\worker.exe");
          EXPECT_STREQ(line, LR"("C:\Program Files\worker.exe" "--channel" "\\.\pipe\a")");
          EXPECT_EQ(process, nullptr);
          EXPECT_EQ(thread, nullptr);
          EXPECT_FALSE(inherit);
          EXPECT_EQ(flags, DWORD{DETACHED_PROCESS | CREATE_UNICODE_ENVIRONMENT});
          EXPECT_EQ(environment, given_.at(2));
          EXPECT_NE(directory, nullptr);
          EXPECT_EQ(startup->cb, sizeof(STARTUPINFOW));
          EXPECT_STREQ(startup->lpDesktop, L"winsta0\\default");
          EXPECT_EQ(startup->dwFlags, 0u);
          if (!succeed("process")) return FALSE;
          // One that is real, as its owner closes it itself.
          made->hProcess = CreateEventW(nullptr, TRUE, FALSE, nullptr);
          made->dwProcessId = 4711;
          return give("thread", &made->hThread);
        };
    calls_.close = [this](HANDLE handle) { return take(handle, 'h'); };
  }

  Launched launch() {
    return launch_in_session(calls_, "C:\\Program Files\\worker.exe",
                             {"--channel", "\\\\.\\pipe\\a"}, SESSION);
  }
  void fail(const std::string& step, DWORD error) {
    failing_ = step;
    error_ = error;
  }

  std::vector<std::string> steps_;
  std::vector<void*> given_, open_;
  std::string taken_;

 private:
  BOOL succeed(const std::string& step) {
    steps_.push_back(step);
    if (step != failing_) return TRUE;
    SetLastError(error_);
    return FALSE;
  }
  BOOL give(const std::string& step, void** to) {
    if (!succeed(step)) return FALSE;
    *to = reinterpret_cast<void*>(0x1000 + 8 * given_.size());
    given_.push_back(*to);
    open_.push_back(*to);
    return TRUE;
  }
  BOOL take(void* given, char how) {
    EXPECT_EQ(std::erase(open_, given), 1u);
    taken_ += how;
    // What is given back may change the last error, which belongs to the step that failed.
    SetLastError(ERROR_INVALID_HANDLE);
    return TRUE;
  }

  LaunchCalls calls_;
  std::string failing_;
  DWORD error_ = ERROR_SUCCESS;
};

TEST_F(LaunchTest, TheServicesTokenIsCopiedMovedToTheSessionAndUsed) {
  const Launched launched = launch();
  EXPECT_TRUE(launched.process);
  EXPECT_EQ(launched.id, 4711u);
  EXPECT_EQ(launched.error, "");
  EXPECT_EQ(steps_, (std::vector<std::string>{"open", "duplicate", "session", "environment",
                                              "process", "thread"}));
  EXPECT_TRUE(open_.empty());
  EXPECT_EQ(taken_, "hehh");
}

TEST_F(LaunchTest, AStepThatFailsIsNamedWithItsErrorAndNothingIsKept) {
  const struct {
    const char* step;
    DWORD error;
    const char* text;
  } cases[] = {
      {"open", ERROR_ACCESS_DENIED, "the service's token can't be opened (error 5)"},
      {"duplicate", ERROR_NOT_ENOUGH_MEMORY, "the service's token can't be copied (error 8)"},
      {"session", ERROR_PRIVILEGE_NOT_HELD, "no token for session 3 (error 1314)"},
      {"environment", ERROR_FILE_NOT_FOUND, "no variables for the worker (error 2)"},
      {"process", ERROR_FILE_NOT_FOUND, "C:\\Program Files\\worker.exe (error 2)"},
  };
  for (const auto& [step, error, text] : cases) {
    steps_.clear();
    given_.clear();
    fail(step, error);
    const Launched launched = launch();
    EXPECT_FALSE(launched.process) << step;
    EXPECT_EQ(launched.error, text);
    EXPECT_EQ(steps_.back(), step);
    EXPECT_TRUE(open_.empty()) << step;
  }
}

TEST(CommandLine, IsTakenApartIntoTheSameWords) {
  const std::vector<std::string> words = {"C:\\Program Files\\worker.exe",
                                          "",
                                          "plain",
                                          "two words",
                                          "say \"hello\"",
                                          "ends in a backslash\\",
                                          "two\\\\",
                                          "a\\\"b\\\\\"",
                                          "\ttab",
                                          "\xC3\xA4\xE2\x82\xAC"};
  int count = 0;
  const LocalMemory<wchar_t*> parts(CommandLineToArgvW(command_line_of(words).c_str(), &count));
  ASSERT_EQ(static_cast<std::size_t>(count), words.size());
  for (std::size_t i = 0; i < words.size(); ++i) EXPECT_EQ(to_utf8(parts.get()[i]), words[i]);
}

TEST(CommandLine, QuotesTheProgramSoThatItsBlanksPartNothing) {
  EXPECT_EQ(command_line_of({"C:\\a b\\c.exe", "run"}), L"\"C:\\a b\\c.exe\" \"run\"");
}

}  // namespace
