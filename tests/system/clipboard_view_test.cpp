// The clipboard between the programs of two desktops: the host's, and the one at which a person
// sits before `lunderhaze-client view`. xclip on both.
#include "tests/system/clipboard_support.h"

namespace system_test {
namespace {

constexpr std::size_t TEXT_LIMIT = 1'048'576;

class ClipboardViewTest : public ClipboardTest {
 protected:
  void TearDown() override {
    receiver_.reset();
    seat_.reset();
    seat_desktop_.reset();
    ClipboardTest::TearDown();
  }

  // A host, and a window to it on a desktop of the person's own, which by then has this text.
  void sit_down(const std::string& first) {
    prepare();
    seat_desktop_ = std::make_unique<Xvfb>(800, 600);
    seat_ = std::make_unique<Xclip>(seat_desktop_->display());
    Environment environment = environment_;
    environment["DISPLAY"] = seat_desktop_->display();
    receiver_ = std::make_unique<ChildProcess>(at(client_place_, "lunderhaze-client",
                                                  {"--store", (directory_ / "client").string(),
                                                   "--verbose", "view", "--host", host_address()}),
                                               environment);
    ASSERT_TRUE(host_says(" started: ", seconds(20)));
    expect_at_seat(first);
  }
  // Copied there and pasted here; byte for byte.
  void expect_at_seat(const std::string& content, const std::string& target = "UTF8_STRING") {
    desk_->copy(content, target);
    EXPECT_TRUE(seat_->changed());
    EXPECT_TRUE(seat_->paste(target) == content);
    EXPECT_TRUE(host_says(" delivered in "));  // and so it has said all that came before
  }
  void expect_at_desk(const std::string& content, const std::string& target = "UTF8_STRING") {
    seat_->copy(content, target);
    EXPECT_TRUE(desk_->changed());
    EXPECT_TRUE(desk_->paste(target) == content);
    EXPECT_TRUE(client_says(" delivered in "));
  }
  std::size_t items_sent_from_seat() const {
    return count_of(receiver_->output(), "clipboard: sending #");
  }

  std::unique_ptr<Xvfb> seat_desktop_;
  std::unique_ptr<Xclip> seat_;
};

TEST_F(ClipboardViewTest, WhatIsCopiedAtOneDesktopIsPastedAtTheOtherAndGoesOnce) {
  sit_down("gr\u00FC\u00DFe, \u20AC 5, \u65E5\u672C\u8A9E\nfrom the host");
  expect_at_desk("lone\rand \U0001F600\n");
  expect_at_seat(large_text(TEXT_LIMIT));
  expect_at_desk(large_text(TEXT_LIMIT - 1) + "!");
  expect_at_seat(text_of(noise_png(300)), PNG_TARGET);
  expect_at_desk(text_of(noise_png(301)), PNG_TARGET);
  // A clipboard manager at either desktop writes anew what has come.
  seat_->copy(text_of(noise_png(301)), PNG_TARGET);
  desk_->copy(text_of(noise_png(301)), PNG_TARGET);
  EXPECT_TRUE(seat_->given());
  EXPECT_TRUE(desk_->given());
  expect_at_desk("the last of hers");
  expect_at_seat("the last of the host's");
  EXPECT_EQ(items_sent(), 4U);
  EXPECT_EQ(items_sent_from_seat(), 4U);
}

TEST_F(ClipboardViewTest, ATextOverTheLimitStaysWhereItIsAndTheOtherDesktopKeepsItsOwn) {
  sit_down("former");
  seat_->copy(large_text(TEXT_LIMIT + 1));
  EXPECT_TRUE(client_says("clipboard: local text of 1048577 B is over the 1 MB limit; not sent"));
  EXPECT_EQ(desk_->paste(), "former");
  desk_->copy(large_text(TEXT_LIMIT + 2));
  EXPECT_TRUE(host_says("clipboard: local text of 1048578 B is over the 1 MB limit; not sent"));
  EXPECT_TRUE(seat_->paste() == large_text(TEXT_LIMIT + 1));
  expect_at_desk("next");
  EXPECT_EQ(items_sent(), 1U);
  EXPECT_EQ(items_sent_from_seat(), 1U);
}

TEST_F(ClipboardViewTest, TheSameCopiedAgainBehindAReconnectIsNotSentAgain) {
  sit_down("host's");
  expect_at_desk("same");
  EXPECT_EQ(stop_host(), 0);
  serve();
  ASSERT_TRUE(client_says("back after", seconds(20)));
  seat_->copy("same");
  EXPECT_TRUE(seat_->given(1));  // this program has read it
  expect_at_desk("other");
  EXPECT_EQ(items_sent_from_seat(), 2U);
}

}  // namespace
}  // namespace system_test
