// The Windows client towards this computer's host: connecting, a bad network, its window.
#include <signal.h>

#include "tests/system/loss_support.h"
#include "tests/system/view_support.h"
#include "tests/system/windows/wine_support.h"

namespace system_test {
namespace {

constexpr int WIDTH = 1280;  // of both desktops
constexpr int HEIGHT = 720;

class WindowsClientTest : public ViewTest {
 protected:
  static void SetUpTestSuite() {
    if (WineDesk::missing().empty()) desk_ = std::make_unique<WineDesk>();
  }
  static void TearDownTestSuite() { desk_.reset(); }
  void SetUp() override {
    start_desktop_and_host();
    if (IsSkipped() || HasFatalFailure()) return;
    pair_windows_client();
  }
  void start_desktop_and_host() {
    if (!WineDesk::missing().empty()) GTEST_SKIP() << WineDesk::missing();
    ASSERT_TRUE(desk_->running());
    SystemTest::SetUp();
    start_desktop(WIDTH, HEIGHT);
    // Else Ctrl would be the host's Super.
    start_host({"--codec", "h264", "--no-mac-keys"});
  }
  void pair_windows_client() {
    const RunResult paired =
        windows_client({"pair", "--host", host_address(), "--pin", shown_pin()});
    ASSERT_EQ(paired.status, 0) << paired.output;
  }
  void TearDown() override {
    recorder_.reset();
    screen_.reset();
    if (desk_) ViewTest::TearDown();
  }

  static const WineDesk& desk() { return *desk_; }
  std::vector<std::string> with_store(const std::vector<std::string>& arguments) const {
    std::vector<std::string> all = {"--store", WineDesk::windows_path(directory_ / "client")};
    all.insert(all.end(), arguments.begin(), arguments.end());
    return all;
  }
  RunResult windows_client(const std::vector<std::string>& arguments) const {
    return desk().run("lunderhaze-client.exe", with_store(arguments));
  }
  RunResult connect_for(int length_s, const std::vector<std::string>& more = {}) const {
    std::vector<std::string> arguments = {"connect",
                                          "--host",
                                          host_address(),
                                          "--seconds",
                                          std::to_string(length_s),
                                          "--out",
                                          WineDesk::windows_path(out())};
    arguments.insert(arguments.end(), more.begin(), more.end());
    return windows_client(arguments);
  }
  void paint_a_moving_picture() {
    screen_ = std::make_unique<ChildProcess>(
        std::vector<std::string>{program("lunderhaze-testscreen")}, environment_);
  }
  // Until Ctrl+C.
  std::unique_ptr<ChildProcess> start_receiving() const {
    return desk().start("lunderhaze-client.exe",
                        with_store({"connect", "--host", host_address(), "--seconds", "0", "--out",
                                    WineDesk::windows_path(out())}));
  }

  // A person before the window, which covers the desktop of Windows, and what reaches the host's in
  // its upper part. Wine's drawing by Direct3D is the processor's, and would take a second a
  // picture.
  void sit_down_before_windows() {
    painter_->fill(GROUND, 0, 0, WIDTH, HEIGHT);
    user_ = std::make_unique<User>(desk().display());
    user_->end_key_repeat();
    user_->move(20, 20);  // away from where it will come in
    User(desktop_->display()).end_key_repeat();
    viewer_ =
        desk().start("lunderhaze-client.exe",
                     with_store({"view", "--host", host_address(), "--full-screen", "--no-sound",
                                 "--report", WineDesk::windows_path(directory_ / "view.json")}),
                     {{"SDL_RENDER_DRIVER", "software"}});
    ASSERT_TRUE(viewer_->wait_for_output("path:", seconds(30))) << viewer_->output();
    ASSERT_TRUE(shows(GROUND, WIDTH - 5, 5)) << std::hex << user_->colour(WIDTH - 5, 5);
    recorder_ = std::make_unique<Recorder>(desktop_->display(), 0, 0, WIDTH, 200);
    user_->move(200, 100);
    ASSERT_TRUE(recorder_->records("motion 200,100"));
    user_->click();
    ASSERT_TRUE(recorder_->records("button 1 up 200,100"));
  }

  std::unique_ptr<ChildProcess> screen_;
  std::unique_ptr<Recorder> recorder_;

 private:
  static std::unique_ptr<WineDesk> desk_;
};
std::unique_ptr<WineDesk> WindowsClientTest::desk_;

TEST_F(WindowsClientTest, ConnectsTenSecondsCompleteAndDecodable) {
  paint_a_moving_picture();
  const RunResult result = connect_for(10);
  ASSERT_EQ(result.status, 0) << result.output;
  const auto json = report();
  std::printf("10 s: %s\n", json.dump().c_str());
  EXPECT_GE(json["seconds"].get<double>(), 10.0);
  EXPECT_GT(json["frames"].get<int>(), 10);  // of 600 that are painted: not how fast, but on and on
  EXPECT_EQ(json["frames_lost"], 0);
  EXPECT_EQ(json["frames_undecodable"], 0);
  EXPECT_EQ(json["path"]["class"], "LAN");
  EXPECT_EQ(json["stream"]["width"], WIDTH);
  EXPECT_EQ(json["stream"]["height"], HEIGHT);
  const RunResult decoded = decode_with_ffmpeg(recording());
  EXPECT_EQ(decoded.status, 0);
  EXPECT_EQ(decoded.output, "");
}

TEST_F(WindowsClientTest, ItsLastPictureIsTheHostsScreen) {
  painter_->fill(GROUND, 0, 0, WIDTH, HEIGHT);
  painter_->text(0, 100, 200, "the quick brown fox jumps over the lazy dog 0123456789");
  const RunResult result = connect_for(3);
  ASSERT_EQ(result.status, 0) << result.output;
  const double psnr = luma_psnr(last_frame(), screen(0, 0, WIDTH, HEIGHT));
  std::printf("luma PSNR %.1f dB\n", psnr);
  EXPECT_GE(psnr, 35.0);
}

TEST_F(WindowsClientTest, CtrlCEndsItInOrder) {
  paint_a_moving_picture();
  const auto client = start_receiving();
  ASSERT_TRUE(client->wait_for_output(" fps", seconds(30))) << client->output();
  client->signal(SIGINT);
  EXPECT_EQ(client->wait(seconds(20)), 0) << client->output();
  EXPECT_GT(report()["frames"].get<int>(), 0);
}

TEST_F(WindowsClientTest, ItsWindowShowsTheHostsScreenAndSendsMouseAndKeys) {
  sit_down_before_windows();
  painter_->fill(0xC02010, 600, 300, 100, 100);
  ASSERT_TRUE(shows(0xC02010, 650, 350));
  ASSERT_TRUE(shows(GROUND, 550, 350));
  user_->tap('a');
  ASSERT_TRUE(recorder_->records("key 38 up"));
  EXPECT_EQ(leave(), 0) << viewer_->output();
  EXPECT_GT(view_report()["screens"][0]["pictures_shown"].get<int>(), 0) << view_report().dump();
}

// Which Windows would keep for itself without the grab.
TEST_F(WindowsClientTest, ItsWindowSendsTheKeysOfTheDesktopsOwnShortcuts) {
  sit_down_before_windows();
  recorder_->forget();
  user_->key(KEY_LEFT_ALT, true);
  user_->tap(KEY_TAB);
  user_->key(KEY_LEFT_ALT, false);
  user_->tap(KEY_LEFT_SUPER);
  ASSERT_TRUE(recorder_->records("key 133 up"));
  const std::vector<std::string> expected = {"key 64 down", "key 23 down",  "key 23 up",
                                             "key 64 up",   "key 133 down", "key 133 up"};
  EXPECT_EQ(recorder_->events_until("key 133 up", "key"), expected);
  EXPECT_EQ(leave(), 0) << viewer_->output();
}

class WindowsClientOverABadNetworkTest : public WindowsClientTest {
 protected:
  void SetUp() override {
    start_desktop_and_host();
    if (IsSkipped() || HasFatalFailure()) return;
    network_ = std::make_unique<LossyPath>(port_);
    pair_windows_client();
  }
  std::string host_address() const override { return network_->host_address(); }

  std::unique_ptr<LossyPath> network_;
};

TEST_F(WindowsClientOverABadNetworkTest, PairsAndReceivesWhatIsDecodable) {
  paint_a_moving_picture();
  receiver_ = start_receiving();
  network_->stream(*receiver_, *screen_, *painter_);
  network_->expect_a_sound_stream(report(), recording(), last_frame());
}

}  // namespace
}  // namespace system_test
