// Which session is served, and what its worker is told, over a scripted seat and a scripted /proc.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <mutex>

#include "apps/service/linux/login_sessions.h"
#include "apps/service/linux/session_environment.h"
#include "apps/service/platform.h"
#include "control/linux/descriptor.h"
#include "gtest/gtest.h"
#include "tests/support/temp_directory.h"

namespace {

namespace fs = std::filesystem;

LoginSession x11_session(const std::string& id = "3") {
  return {id, "x11", "", getuid(), "anna"};
}

class SessionEnvironmentTest : public testing::Test {
 protected:
  SessionEnvironmentTest() {
    for (const fs::path& path : {places_.home, places_.runtime, places_.copies, proc_})
      fs::create_directories(path);
  }
  void add_process(int id, const std::string& group, const std::vector<std::string>& variables) {
    const fs::path process = proc_ / std::to_string(id);
    fs::create_directory(process);
    write_file(process / "cgroup", "0::" + group + "\n");
    std::string environ;
    for (const std::string& variable : variables) environ += variable + '\0';
    write_file(process / "environ", environ);
  }
  std::vector<Environment> found() { return session_environments(session_, proc_); }
  Environment told() {
    return worker_environment(session_, found(), places_).value_or(Environment{});
  }
  Environment told(const Environment& process) {
    return worker_environment(session_, {process}, places_).value_or(Environment{});
  }
  void make_socket(const fs::path& path) {
    fs::create_directories(path.parent_path());
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.string().copy(address.sun_path, sizeof address.sun_path - 1);
    const Descriptor socket(::socket(AF_UNIX, SOCK_STREAM, 0));
    ASSERT_EQ(bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }

  TempDirectory directory_;
  fs::path proc_ = directory_ / "proc";
  SessionPlaces places_{directory_ / "home", directory_ / "run", directory_ / "copies"};
  LoginSession session_ = x11_session();
  const std::string scope_ = "/user.slice/user-1000.slice/session-3.scope";
};

TEST_F(SessionEnvironmentTest, IsThatOfTheSessionsOwnProcessesFirstStartedFirst) {
  add_process(30, scope_, {"DISPLAY=:3"});
  add_process(4, scope_, {"DISPLAY=:1", "EMPTY=", "no variable"});
  add_process(5, "/user.slice/user-1000.slice/session-33.scope", {"DISPLAY=:9"});
  add_process(6, "/user.slice/user-1000.slice/user@1000.service/x.slice", {"DISPLAY=:9"});
  add_process(7, "/session-3.scope-not", {"DISPLAY=:9"});
  write_file(proc_ / "uptime", "1");
  const std::vector<Environment> all = found();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0], (Environment{{"DISPLAY", ":1"}, {"EMPTY", ""}}));
  EXPECT_EQ(all[1].at("DISPLAY"), ":3");
}

TEST_F(SessionEnvironmentTest, IsNotThatOfAnotherUsersProcessInTheSession) {
  add_process(4, scope_, {"DISPLAY=:1"});
  session_.uid = getuid() + 1;
  EXPECT_TRUE(found().empty());
}

TEST_F(SessionEnvironmentTest, IsMissingWhileNoProcessHasADisplay) {
  add_process(4, scope_, {"HOME=/home/anna"});
  EXPECT_FALSE(worker_environment(session_, found(), places_));
}

TEST_F(SessionEnvironmentTest, HasTheDisplayThatLogindKnows) {
  add_process(4, scope_, {"DISPLAY=:9"});  // a desktop inside a window
  add_process(5, scope_, {"DISPLAY=:1.0"});
  session_.display = ":1";
  EXPECT_EQ(told().at("DISPLAY"), ":1.0");
  session_.display = ":2";
  EXPECT_EQ(told().at("DISPLAY"), ":2");
}

TEST_F(SessionEnvironmentTest, NeverLeadsToADisplayElsewhere) {
  for (const char* display :
       {"evil.example:0", "tcp/evil.example:0", "0", ":", ":x", "", "unix:0"}) {
    add_process(4, scope_, {std::string("DISPLAY=") + display});
    EXPECT_FALSE(worker_environment(session_, found(), places_)) << display;
    fs::remove_all(proc_ / "4");
  }
  EXPECT_EQ(local_session_number(":7"), 8u);
  EXPECT_EQ(local_session_number(":7.0"), 8u);
  EXPECT_EQ(local_session_number("far:7"), 0u);
}

TEST_F(SessionEnvironmentTest, TakesACopyOfTheUsersDisplayCookie) {
  const fs::path cookie = directory_ / "cookie";
  write_file(cookie, "cookie");
  const Environment worker = told({{"DISPLAY", ":1"}, {"XAUTHORITY", cookie.string()}});
  const fs::path copy = worker.at("XAUTHORITY");
  EXPECT_EQ(copy, places_.copies / "session-xauthority");
  EXPECT_EQ(file_content(copy), "cookie");
  EXPECT_EQ(fs::status(copy).permissions(), fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(SessionEnvironmentTest, FindsTheCookieWhereDesktopsUsuallyKeepIt) {
  const Environment process = {{"DISPLAY", ":1"}};
  EXPECT_FALSE(told(process).contains("XAUTHORITY"));
  write_file(places_.home / ".Xauthority", "at home");
  EXPECT_EQ(file_content(told(process).at("XAUTHORITY")), "at home");
  fs::create_directories(places_.runtime / "gdm");
  write_file(places_.runtime / "gdm" / "Xauthority", "of the display manager");
  EXPECT_EQ(file_content(told(process).at("XAUTHORITY")), "of the display manager");
}

// The worker sends cookies on: one of root's files, or another user's, must not be among them.
TEST_F(SessionEnvironmentTest, TakesNoFileThatIsNotTheUsersOwn) {
  if (getuid() != 0) GTEST_SKIP() << "needs root";
  const fs::path foreign = directory_ / "foreign";
  write_file(foreign, std::string(256, 's'));
  session_.uid = 1'000;
  fs::create_directories(places_.home / ".config" / "pulse");
  fs::create_symlink(foreign, places_.home / ".config" / "pulse" / "cookie");
  fs::create_symlink(foreign, places_.home / ".Xauthority");
  for (const std::string& path :
       {foreign.string(), std::string("/dev/zero"), std::string("cookie"), places_.home.string()}) {
    const Environment worker = told({{"DISPLAY", ":1"}, {"XAUTHORITY", path}});
    EXPECT_FALSE(worker.contains("XAUTHORITY")) << path;
    EXPECT_FALSE(worker.contains("PULSE_COOKIE"));
  }
  ASSERT_EQ(chown(foreign.c_str(), 1'000, 1'000), 0);
  const Environment worker = told({{"DISPLAY", ":1"}});
  EXPECT_TRUE(worker.contains("XAUTHORITY"));
  EXPECT_TRUE(worker.contains("PULSE_COOKIE"));
}

TEST_F(SessionEnvironmentTest, HasTheRuntimeDirectoryOnlyIfItIsTheUsers) {
  const fs::path own = directory_ / "own";
  fs::create_directory(own);
  EXPECT_EQ(told({{"DISPLAY", ":1"}, {"XDG_RUNTIME_DIR", own.string()}}).at("XDG_RUNTIME_DIR"),
            own.string());
  for (const std::string& wrong :
       {std::string("relative"), (directory_ / "none").string(), std::string()})
    EXPECT_EQ(told({{"DISPLAY", ":1"}, {"XDG_RUNTIME_DIR", wrong}}).at("XDG_RUNTIME_DIR"),
              places_.runtime.string());
}

TEST_F(SessionEnvironmentTest, HasASoundServerOfThisComputerAlone) {
  EXPECT_EQ(told({{"DISPLAY", ":1"}, {"PULSE_SERVER", "unix:/run/x/native"}}).at("PULSE_SERVER"),
            "unix:/run/x/native");
  EXPECT_FALSE(
      told({{"DISPLAY", ":1"}, {"PULSE_SERVER", "tcp:evil.example"}}).contains("PULSE_SERVER"));
  make_socket(places_.runtime / "pulse" / "native");
  EXPECT_EQ(told({{"DISPLAY", ":1"}, {"PULSE_SERVER", "tcp:evil.example"}}).at("PULSE_SERVER"),
            "unix:" + (places_.runtime / "pulse" / "native").string());
}

TEST(ChosenSessionTest, IsWhatTheOptionsSay) {
  WakeEvent wake(WakeEvent::Reset::Auto);
  std::string error;
  const auto source = service_platform::session_source({{"--display", ":6"},
                                                        {"--xauthority", "/x"},
                                                        {"--runtime-dir", "/r"},
                                                        {"--pulse-server", "unix:/p"}},
                                                       wake, &error);
  ASSERT_TRUE(source) << error;
  const SessionView view = source->active();
  ASSERT_TRUE(view.session);
  EXPECT_EQ(view.session->number, 7u);
  EXPECT_EQ(view.session->environment, (Environment{{"DISPLAY", ":6"},
                                                    {"PULSE_SERVER", "unix:/p"},
                                                    {"XAUTHORITY", "/x"},
                                                    {"XDG_RUNTIME_DIR", "/r"}}));
}

TEST(ChosenSessionTest, NeedsADisplayOfThisComputer) {
  WakeEvent wake(WakeEvent::Reset::Auto);
  std::string error;
  EXPECT_FALSE(service_platform::session_source({{"--display", "far:1"}}, wake, &error));
  EXPECT_EQ(error, "--display must be one of this computer's, such as :0");
  EXPECT_FALSE(service_platform::session_source({{"--xauthority", "/x"}}, wake, &error));
  EXPECT_EQ(error, "--xauthority, --runtime-dir and --pulse-server need --display");
}

// What the seat shows is the test's to say; a change is reported once.
class ScriptedSeat final : public LoginSeat {
 public:
  struct Script {
    std::mutex mutex;
    std::optional<LoginSession> session;
    WakeEvent changed{WakeEvent::Reset::Auto};
    void show(const std::optional<LoginSession>& next) {
      {
        const std::lock_guard lock(mutex);
        session = next;
      }
      changed.set();
    }
  };
  explicit ScriptedSeat(Script& script) : script_(script) {}
  std::optional<LoginSession> active() override {
    const std::lock_guard lock(script_.mutex);
    return script_.session;
  }
  void wait_for_change(const WakeEvent& stop, std::uint32_t) override {
    // The stop's event is polled here, so that the test needs no wait on two.
    while (!script_.changed.wait(5) && !const_cast<WakeEvent&>(stop).wait(0)) continue;
  }

 private:
  Script& script_;
};

class LoginSessionsTest : public testing::Test {
 protected:
  void begin() {
    sessions_ = std::make_unique<LoginSessions>(
        std::make_unique<ScriptedSeat>(script_),
        [this](const LoginSession& session) -> std::optional<Environment> {
          ++searches_;
          if (!display_there_) return std::nullopt;
          return Environment{{"DISPLAY", ":" + session.id}};
        },
        wake_);
  }
  SessionView after(const std::optional<LoginSession>& shown) {
    script_.show(shown);
    EXPECT_TRUE(wake_.wait(10'000));
    return sessions_->active();
  }

  ScriptedSeat::Script script_;
  WakeEvent wake_{WakeEvent::Reset::Auto};
  std::atomic<bool> display_there_{true};
  std::atomic<int> searches_{0};
  std::unique_ptr<LoginSessions> sessions_;
};

TEST_F(LoginSessionsTest, ServesTheSeatsX11Session) {
  script_.session = x11_session("3");
  begin();
  const SessionView view = sessions_->active();
  ASSERT_TRUE(view.session);
  EXPECT_EQ(view.session->name, "session 3 of anna on :3");
  EXPECT_EQ(view.session->number, 4u);
  EXPECT_EQ(view.session->environment.at("DISPLAY"), ":3");
}

TEST_F(LoginSessionsTest, FollowsASwitch) {
  script_.session = x11_session("3");
  begin();
  const SessionView view = after(x11_session("5"));
  ASSERT_TRUE(view.session);
  EXPECT_EQ(view.session->name, "session 5 of anna on :5");
}

TEST_F(LoginSessionsTest, NamesAWaylandSessionAndDoesNotServeIt) {
  script_.session = x11_session("3");
  begin();
  LoginSession wayland = x11_session("4");
  wayland.type = "wayland";
  const SessionView view = after(wayland);
  EXPECT_FALSE(view.session);
  EXPECT_EQ(view.why,
            "session 4 of anna is a Wayland session, whose screen can't be captured: choose an X11 "
            "session when logging in");
}

TEST_F(LoginSessionsTest, NamesWhatElseItDoesNotServe) {
  begin();
  EXPECT_EQ(sessions_->active().why, "no session is active");
  LoginSession console = x11_session("4");
  console.type = "tty";
  EXPECT_EQ(after(console).why, "session 4 of anna is a text console");
  console.type = "mir";
  EXPECT_EQ(after(console).why, "session 4 of anna is of the unknown type \"mir\"");
}

TEST_F(LoginSessionsTest, LooksAgainWhileADisplayIsStillToCome) {
  script_.session = x11_session("3");
  display_there_ = false;
  begin();
  EXPECT_EQ(sessions_->active().why, "session 3 of anna has no display yet");
  display_there_ = true;
  EXPECT_TRUE(after(script_.session).session);
}

TEST_F(LoginSessionsTest, LooksForASessionsEnvironmentOnce) {
  script_.session = x11_session("3");
  begin();
  const SessionView first = sessions_->active();
  script_.show(x11_session("3"));
  after(std::nullopt);
  EXPECT_EQ(searches_, 1);
  EXPECT_EQ(*after(x11_session("3")).session, *first.session);
  EXPECT_EQ(searches_, 2);
}

}  // namespace
