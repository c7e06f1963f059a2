// What the service control manager is told, and what it may tell: on recorded calls.
#include "apps/service/windows/service_control.h"

#include <gtest/gtest.h>

#include <vector>

#include "apps/service/platform.h"
#include "apps/service/windows/secure_attention.h"
#include "apps/service/windows/sessions.h"

namespace {

class ServiceControlTest : public testing::Test {
 protected:
  ServiceControlTest() { control_.wake(wake_); }

  ControlCalls calls() {
    ControlCalls calls;
    calls.register_handler = [this](const wchar_t* name, LPHANDLER_FUNCTION_EX handler,
                                    void* context) {
      EXPECT_STREQ(name, L"Lunderhaze");
      handler_ = handler;
      context_ = context;
      return registers_ ? HANDLE : nullptr;
    };
    calls.set_status = [this](SERVICE_STATUS_HANDLE handle, SERVICE_STATUS* status) {
      EXPECT_EQ(handle, HANDLE);
      EXPECT_EQ(status->dwServiceType, DWORD{SERVICE_WIN32_OWN_PROCESS});
      told_.push_back(*status);
      return TRUE;
    };
    return calls;
  }
  DWORD send(DWORD control) { return handler_(control, 0, nullptr, context_); }
  SERVICE_STATUS last() const { return told_.back(); }
  void run() {
    ASSERT_TRUE(control_.begin());
    control_.ready();
  }

  inline static const auto HANDLE = reinterpret_cast<SERVICE_STATUS_HANDLE>(0x51);
  bool registers_ = true;
  LPHANDLER_FUNCTION_EX handler_ = nullptr;
  void* context_ = nullptr;
  std::vector<SERVICE_STATUS> told_;
  WakeEvent wake_{WakeEvent::Reset::Auto};
  ServiceControl control_{calls()};
};

TEST_F(ServiceControlTest, StartsThenRunsThenStopsWithNothingInBetween) {
  ASSERT_TRUE(control_.begin());
  EXPECT_EQ(last().dwCurrentState, DWORD{SERVICE_START_PENDING});
  EXPECT_EQ(last().dwControlsAccepted, 0u);
  EXPECT_GT(last().dwWaitHint, 0u);
  control_.ready();
  EXPECT_EQ(last().dwCurrentState, DWORD{SERVICE_RUNNING});
  EXPECT_EQ(last().dwControlsAccepted,
            DWORD{SERVICE_ACCEPT_STOP | SERVICE_ACCEPT_SHUTDOWN | SERVICE_ACCEPT_PRESHUTDOWN |
                  SERVICE_ACCEPT_SESSIONCHANGE});
  EXPECT_EQ(last().dwWaitHint, 0u);
  EXPECT_EQ(last().dwCheckPoint, 0u);
  control_.stopping();
  EXPECT_EQ(last().dwCurrentState, DWORD{SERVICE_STOP_PENDING});
  EXPECT_EQ(last().dwWaitHint, ServiceControl::STOP_HINT_MS);
  control_.ended(0);
  EXPECT_EQ(last().dwCurrentState, DWORD{SERVICE_STOPPED});
  EXPECT_EQ(last().dwWin32ExitCode, DWORD{NO_ERROR});
  EXPECT_EQ(told_.size(), 4u);
}

TEST_F(ServiceControlTest, AnExitCodeIsTheServicesOwn) {
  ASSERT_TRUE(control_.begin());
  control_.ended(2);
  EXPECT_EQ(last().dwCurrentState, DWORD{SERVICE_STOPPED});
  EXPECT_EQ(last().dwWin32ExitCode, DWORD{ERROR_SERVICE_SPECIFIC_ERROR});
  EXPECT_EQ(last().dwServiceSpecificExitCode, 2u);
  control_.ended(0);
  EXPECT_EQ(told_.size(), 2u);
}

TEST_F(ServiceControlTest, EachWayToEndStopsItAndWakesIt) {
  for (const DWORD way :
       {SERVICE_CONTROL_STOP, SERVICE_CONTROL_SHUTDOWN, SERVICE_CONTROL_PRESHUTDOWN}) {
    ServiceControl one{calls()};
    WakeEvent wake(WakeEvent::Reset::Auto);
    one.wake(wake);
    ASSERT_TRUE(one.begin());
    one.ready();
    EXPECT_FALSE(one.stop_asked());
    EXPECT_EQ(send(way), DWORD{NO_ERROR});
    EXPECT_TRUE(one.stop_asked());
    EXPECT_TRUE(wake.wait(0));
    EXPECT_EQ(last().dwCurrentState, DWORD{SERVICE_STOP_PENDING});
    EXPECT_EQ(last().dwControlsAccepted, 0u);
  }
}

TEST_F(ServiceControlTest, AnotherSessionWakesItAndStopsNothing) {
  run();
  EXPECT_FALSE(wake_.wait(0));
  EXPECT_EQ(send(SERVICE_CONTROL_SESSIONCHANGE), DWORD{NO_ERROR});
  EXPECT_TRUE(wake_.wait(0));
  EXPECT_FALSE(control_.stop_asked());
  EXPECT_EQ(last().dwCurrentState, DWORD{SERVICE_RUNNING});
}

TEST_F(ServiceControlTest, IsThereForWhoAsksAndKnowsNoOtherControl) {
  run();
  EXPECT_EQ(send(SERVICE_CONTROL_INTERROGATE), DWORD{NO_ERROR});
  EXPECT_EQ(send(SERVICE_CONTROL_PAUSE), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
  EXPECT_EQ(send(200), DWORD{ERROR_CALL_NOT_IMPLEMENTED});
  EXPECT_FALSE(control_.stop_asked());
  EXPECT_FALSE(wake_.wait(0));
}

TEST_F(ServiceControlTest, ProgressIsToldWhileSomethingIsUnderWayAndOnlyThen) {
  ASSERT_TRUE(control_.begin());
  const DWORD first = last().dwCheckPoint;
  control_.progress();
  EXPECT_EQ(last().dwCheckPoint, first + 1);
  EXPECT_EQ(last().dwCurrentState, DWORD{SERVICE_START_PENDING});
  control_.ready();
  const std::size_t running = told_.size();
  control_.progress();
  EXPECT_EQ(told_.size(), running);
  control_.stopping();
  control_.progress();
  EXPECT_EQ(last().dwCheckPoint, 2u);
  EXPECT_EQ(last().dwWaitHint, ServiceControl::STOP_HINT_MS);
}

TEST_F(ServiceControlTest, AStopThatCameWhileItStartedIsNotTakenBack) {
  ASSERT_TRUE(control_.begin());
  send(SERVICE_CONTROL_STOP);
  control_.ready();
  EXPECT_EQ(last().dwCurrentState, DWORD{SERVICE_STOP_PENDING});
}

TEST_F(ServiceControlTest, WithoutTheManagerNobodyIsToldAnything) {
  control_.ready();
  control_.stopping();
  control_.progress();
  control_.ended(2);
  EXPECT_TRUE(told_.empty());
  EXPECT_FALSE(control_.managed());
  control_.ask_to_stop();
  EXPECT_TRUE(control_.stop_asked());
  EXPECT_TRUE(wake_.wait(0));
}

TEST_F(ServiceControlTest, AHandlerThatCannotBeRegisteredIsAFailure) {
  registers_ = false;
  EXPECT_FALSE(control_.begin());
  EXPECT_FALSE(control_.managed());
  EXPECT_TRUE(told_.empty());
}

// ---- Sessions

TEST(ServiceSessions, TheConsolesIsServedByItsNumberAlone) {
  const SessionView view = service_platform::console_view(2);
  ASSERT_TRUE(view.session);
  EXPECT_EQ(view.session->number, 2u);
  EXPECT_EQ(view.session->name, "console session 2");
  // Before and after its user signs in: the same, so that the worker stays.
  EXPECT_EQ(view.session, service_platform::console_view(2).session);
  EXPECT_NE(view.session, service_platform::console_view(3).session);
}

TEST(ServiceSessions, NoneIsServedBetweenTwoNorTheServicesOwn) {
  for (const std::uint32_t number : {0xFFFF'FFFFu, 0u}) {
    const SessionView view = service_platform::console_view(number);
    EXPECT_FALSE(view.session);
    EXPECT_EQ(view.why, "no session is at the console");
  }
}

TEST(ServiceSessions, AChosenOneIsANumberFrom1) {
  EXPECT_EQ(service_platform::session_number("1"), 1u);
  EXPECT_EQ(service_platform::session_number("65536"), 65'536u);
  for (const char* text : {"", "0", "-1", "1 ", " 1", "1x", "0x1", "4294967295", "4294967296"})
    EXPECT_FALSE(service_platform::session_number(text)) << text;
  WakeEvent wake(WakeEvent::Reset::Auto);
  std::string error;
  EXPECT_FALSE(service_platform::session_source({{"--session", "0"}}, wake, &error));
  EXPECT_EQ(error, "--session must be the number of a session with a desktop, 1 or more");
  const auto chosen = service_platform::session_source({{"--session", "7"}}, wake, &error);
  ASSERT_TRUE(chosen);
  EXPECT_EQ(chosen->active().session->number, 7u);
}

TEST(ServiceSessions, TheConsolesIsTheOneThatTheSystemNames) {
  WakeEvent wake(WakeEvent::Reset::Auto);
  std::string error;
  const auto source = service_platform::session_source({}, wake, &error);
  ASSERT_TRUE(source);
  EXPECT_EQ(source->active().session,
            service_platform::console_view(WTSGetActiveConsoleSessionId()).session);
}

// ---- Secure attention

int g_sent = 0;
BOOL g_as_user = TRUE;
void WINAPI record_sas(BOOL as_user) {
  ++g_sent;
  g_as_user = as_user;
}
AttentionCalls::SendSas find_recording() {
  return record_sas;
}
AttentionCalls::SendSas find_none() {
  return nullptr;
}
template <DWORD Value>
std::optional<DWORD> policy_of() {
  return Value;
}

TEST(SecureAttention, IsSentAsTheServiceWhereThePolicyLetsIt) {
  for (const AttentionCalls& calls : {AttentionCalls{find_recording, policy_of<1>},
                                      AttentionCalls{find_recording, policy_of<3>}}) {
    g_sent = 0;
    g_as_user = TRUE;
    EXPECT_EQ(send_secure_attention(calls), "sent");
    EXPECT_EQ(g_sent, 1);
    EXPECT_FALSE(g_as_user);
  }
}

TEST(SecureAttention, ThePolicyThatIsInTheWayIsNamed) {
  for (const AttentionCalls& calls :
       {AttentionCalls{find_recording, policy_of<0>}, AttentionCalls{find_recording, policy_of<2>},
        AttentionCalls{find_recording, [] { return std::optional<DWORD>(); }}}) {
    g_sent = 0;
    EXPECT_NE(send_secure_attention(calls).find("software Secure Attention Sequence"),
              std::string::npos);
    EXPECT_EQ(g_sent, 1);
  }
}

TEST(SecureAttention, AWindowsWithoutItIsSaidSo) {
  g_sent = 0;
  EXPECT_EQ(send_secure_attention({find_none, policy_of<1>}),
            "this Windows does not have it (sas.dll)");
  EXPECT_EQ(g_sent, 0);
}

TEST(SecureAttention, TheSystemsLibraryHasTheCall) {
  EXPECT_NE(SYSTEM_ATTENTION.find(), nullptr);
}

}  // namespace
