// What becomes of each call of the service manager that fails, and of a service that takes its time
// to stop: on recorded calls.
#include "apps/service/windows/registration.h"

#include <gtest/gtest.h>

#include <vector>

namespace {

class RegistrationTest : public testing::Test {
 protected:
  RegistrationTest() {
    calls_.open_manager = [this](const wchar_t*, const wchar_t*, DWORD) { return give("manager"); };
    calls_.create = [this](SC_HANDLE, const wchar_t* name, const wchar_t*, DWORD access, DWORD,
                           DWORD, DWORD, const wchar_t* line, const wchar_t*, DWORD*,
                           const wchar_t*, const wchar_t* account, const wchar_t*) {
      EXPECT_STREQ(name, L"Service");
      EXPECT_STREQ(line, L"\"C:\\a b.exe\" \"run\"");
      EXPECT_EQ(account, nullptr);  // LocalSystem
      // To configure a restart takes the right to start.
      EXPECT_EQ(access & (SERVICE_CHANGE_CONFIG | SERVICE_START),
                DWORD{SERVICE_CHANGE_CONFIG | SERVICE_START});
      return give("create");
    };
    calls_.open = [this](SC_HANDLE, const wchar_t*, DWORD) { return give("open"); };
    calls_.change = [this](SC_HANDLE, DWORD, DWORD, DWORD, const wchar_t*, const wchar_t*, DWORD*,
                           const wchar_t*, const wchar_t* account, const wchar_t*, const wchar_t*) {
      EXPECT_STREQ(account, L"LocalSystem");
      return succeed("change");
    };
    calls_.change_more = [this](SC_HANDLE, DWORD what, void* value) {
      if (what == SERVICE_CONFIG_FAILURE_ACTIONS) {
        const auto* actions = static_cast<SERVICE_FAILURE_ACTIONSW*>(value);
        EXPECT_EQ(actions->cActions, 3u);
        for (DWORD i = 0; i < actions->cActions; ++i)
          EXPECT_EQ(actions->lpsaActions[i].Type, SC_ACTION_RESTART);
      }
      return succeed("more " + std::to_string(what));
    };
    calls_.control = [this](SC_HANDLE, DWORD control, SERVICE_STATUS*) {
      EXPECT_EQ(control, DWORD{SERVICE_CONTROL_STOP});
      return succeed("stop");
    };
    calls_.query = [this](SC_HANDLE, SERVICE_STATUS* status) {
      status->dwCurrentState = states_.front();
      if (states_.size() > 1) states_.erase(states_.begin());
      return succeed("query");
    };
    calls_.remove = [this](SC_HANDLE) { return succeed("remove"); };
  }

  Registered install() {
    steps_.clear();
    return register_service(calls_, L"Service", L"\"C:\\a b.exe\" \"run\"");
  }
  Registered uninstall(DWORD stop_ms = 10'000) {
    steps_.clear();
    return unregister_service(calls_, L"Service", stop_ms);
  }
  void fail(const std::string& step, DWORD error) {
    failing_ = step;
    error_ = error;
  }

  std::vector<std::string> steps_;
  std::vector<DWORD> states_ = {SERVICE_STOPPED};

 private:
  BOOL succeed(const std::string& step) {
    steps_.push_back(step);
    if (step != failing_) return TRUE;
    SetLastError(error_);
    return FALSE;
  }
  // A real handle, as its owner closes it itself.
  SC_HANDLE give(const std::string& step) {
    return succeed(step) ? OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT) : nullptr;
  }

  RegistrationCalls calls_;
  std::string failing_;
  DWORD error_ = ERROR_SUCCESS;
};

TEST_F(RegistrationTest, ANewOneIsMadeAndConfigured) {
  EXPECT_TRUE(install().done);
  EXPECT_EQ(steps_, (std::vector<std::string>{"manager", "create", "more 1", "more 2", "more 7"}));
}

TEST_F(RegistrationTest, WhoIsNoAdministratorIsToldSo) {
  fail("manager", ERROR_ACCESS_DENIED);
  for (const Registered& refused : {install(), uninstall()}) {
    EXPECT_FALSE(refused.done);
    EXPECT_EQ(refused.error, DWORD{ERROR_ACCESS_DENIED});
    EXPECT_EQ(refused.text,
              "The service manager can't be asked: run this in a terminal that was started as "
              "administrator");
  }
}

TEST_F(RegistrationTest, OneThatIsJustBeingRemovedIsSaidSo) {
  fail("create", ERROR_SERVICE_MARKED_FOR_DELETE);
  const Registered refused = install();
  EXPECT_FALSE(refused.done);
  EXPECT_NE(refused.text.find("it is being removed; close what still shows it"), std::string::npos);
}

TEST_F(RegistrationTest, OneThatIsThereIsChanged) {
  fail("create", ERROR_SERVICE_EXISTS);
  EXPECT_TRUE(install().done);
  EXPECT_EQ(steps_, (std::vector<std::string>{"manager", "create", "open", "change", "more 1",
                                              "more 2", "more 7"}));
}

TEST_F(RegistrationTest, ANewOneThatCannotBeConfiguredIsTakenBack) {
  for (const char* step : {"more 1", "more 2", "more 7"}) {
    fail(step, ERROR_NOT_ENOUGH_MEMORY);
    const Registered refused = install();
    EXPECT_FALSE(refused.done);
    EXPECT_EQ(refused.text, "The service \"Service\" can't be configured (error 8)");
    EXPECT_EQ(steps_.back(), "remove") << step;
  }
}

TEST_F(RegistrationTest, AServiceThatRunsIsStoppedAndWaitedForAndThenRemoved) {
  states_ = {SERVICE_STOP_PENDING, SERVICE_STOP_PENDING, SERVICE_STOPPED};
  EXPECT_TRUE(uninstall().done);
  EXPECT_EQ(steps_, (std::vector<std::string>{"manager", "open", "stop", "query", "query", "query",
                                              "remove"}));
}

TEST_F(RegistrationTest, AServiceThatDoesNotRunIsRemovedAtOnce) {
  fail("stop", ERROR_SERVICE_NOT_ACTIVE);
  EXPECT_TRUE(uninstall().done);
  EXPECT_EQ(steps_, (std::vector<std::string>{"manager", "open", "stop", "remove"}));
}

TEST_F(RegistrationTest, AServiceThatIsStartingIsStoppedOnceItRuns) {
  fail("stop", ERROR_SERVICE_CANNOT_ACCEPT_CTRL);
  states_ = {SERVICE_START_PENDING, SERVICE_RUNNING, SERVICE_STOPPED};
  EXPECT_TRUE(uninstall().done);
  EXPECT_EQ(steps_, (std::vector<std::string>{"manager", "open", "stop", "query", "query", "stop",
                                              "query", "remove"}));
}

TEST_F(RegistrationTest, AServiceThatDoesNotStopIsKept) {
  states_ = {SERVICE_STOP_PENDING};
  const Registered refused = uninstall(150);
  EXPECT_FALSE(refused.done);
  EXPECT_EQ(refused.error, DWORD{ERROR_SERVICE_REQUEST_TIMEOUT});
  EXPECT_EQ(refused.text, "The service \"Service\" does not stop (error 1053)");
  EXPECT_EQ(steps_.back(), "query");
}

TEST_F(RegistrationTest, EachFailureOfARemovalIsNamed) {
  const struct {
    const char* step;
    DWORD error;
    const char* text;
  } cases[] = {
      {"open", ERROR_INVALID_NAME, "The service \"Service\" can't be opened (error 123)"},
      {"stop", ERROR_DEPENDENT_SERVICES_RUNNING,
       "The service \"Service\" does not stop (error 1051)"},
      {"query", ERROR_INVALID_HANDLE, "The service \"Service\" does not stop (error 6)"},
      {"remove", ERROR_INVALID_HANDLE, "The service \"Service\" can't be removed (error 6)"},
  };
  for (const auto& [step, error, text] : cases) {
    fail(step, error);
    const Registered refused = uninstall();
    EXPECT_FALSE(refused.done) << step;
    EXPECT_EQ(refused.text, text);
  }
}

TEST_F(RegistrationTest, OneThatIsNotThereOrIsBeingRemovedNeedsNoRemoval) {
  fail("open", ERROR_SERVICE_DOES_NOT_EXIST);
  EXPECT_TRUE(uninstall().done);
  fail("remove", ERROR_SERVICE_MARKED_FOR_DELETE);
  EXPECT_TRUE(uninstall().done);
}

}  // namespace
