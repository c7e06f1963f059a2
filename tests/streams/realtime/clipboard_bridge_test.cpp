// Whole bridges with their threads and engines: two against each other, and the host's over its
// store. The clipboards are in memory.
#include "streams/clipboard_bridge.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "control/keystore.h"
#include "streams/host_clipboard_sync.h"
#include "streams/png_codec.h"
#include "tests/streams/realtime/bridge_ends.h"
#include "tests/streams/realtime/desktop_clipboard.h"
#include "tests/support/temporary_store.h"

namespace {

using testing::ElementsAre;
using Bytes = std::vector<std::uint8_t>;

struct End {
  Desktop desktop;
  Lines lines;
  ClipboardSync sync{std::make_unique<DesktopClipboard>(desktop), lines.log(), true};
};

struct Pair {
  Pair() {
    EXPECT_TRUE(host.sync.start());
    EXPECT_TRUE(client.sync.start());
    session.emplace(host.sync, client.sync);
  }
  End host;
  End client;
  std::optional<BridgeSession> session;
};

TEST(ClipboardBridge, TextAndPicturesGoBothWays) {
  Pair pair;
  pair.host.desktop.copy_text("from the host");
  EXPECT_EQ(pair.client.desktop.text_after_waiting_for("from the host"), "from the host");
  pair.client.desktop.copy_text("from the client");
  EXPECT_EQ(pair.host.desktop.text_after_waiting_for("from the client"), "from the client");

  Bytes png;
  ASSERT_TRUE(encode_png({2, 1, {1, 2, 3, 4, 5, 6, 7, 8}}, &png));
  pair.host.desktop.copy(ClipboardForm::Png, png);
  EXPECT_EQ(pair.client.desktop.png_after_waiting(), png);
}

TEST(ClipboardBridge, WithSyncOffAnItemIsNotAppliedAndTheSenderIsToldOfItsDelivery) {
  Pair pair;
  pair.host.sync.set_enabled(false);
  pair.client.desktop.copy_text("unwanted");
  EXPECT_TRUE(pair.client.lines.wait_for("#1 text, 8 B delivered"));
  EXPECT_TRUE(pair.host.lines.wait_for("clipboard: #1 not applied (sync is off)"));
  EXPECT_FALSE(pair.host.desktop.written);
}

TEST(ClipboardBridge, OnlyTheEndOfThePresentSessionEndsIt) {
  Pair pair;
  pair.host.sync.session_down(4711);
  pair.host.desktop.copy_text("still here");
  EXPECT_EQ(pair.client.desktop.text_after_waiting_for("still here"), "still here");
  pair.session.reset();
  pair.session.emplace(pair.host.sync, pair.client.sync, 10);
  pair.host.desktop.copy_text("in the next session");
  EXPECT_EQ(pair.client.desktop.text_after_waiting_for("in the next session"),
            "in the next session");
}

TEST(ClipboardBridge, WithoutAClipboardItDoesNotStartAndItsEngineAnswersAllTheSame) {
  End client;
  End host;
  host.desktop.there = false;
  EXPECT_FALSE(host.sync.start());
  ASSERT_TRUE(client.sync.start());
  const BridgeSession session(host.sync, client.sync);
  client.desktop.copy_text("to nobody");
  EXPECT_TRUE(client.lines.wait_for("delivered"));
}

TEST(ClipboardBridge, WithoutThePictureLibraryItSaysSoOnceAndStarts) {
  End end;
  end.desktop.pictures = false;
  EXPECT_TRUE(end.sync.start());
  EXPECT_TRUE(end.sync.start());
  EXPECT_THAT(end.lines.all(),
              ElementsAre("clipboard: WIC is not available; images are not synced"));
}

TEST(ClipboardBridge, StoppedInTheMiddleOfASendingItEndsAtOnce) {
  auto pair = std::make_unique<Pair>();
  pair->host.desktop.copy_text(std::string(1'048'576, 'x'));
  EXPECT_TRUE(pair->host.lines.wait_for("sending #1"));
  pair.reset();  // which would hang, or not come back whole
}

// ---- The host's

class HostClipboardTest : public testing::Test {
 protected:
  ~HostClipboardTest() override { clipboard_.reset(); }
  HostClipboard& clipboard() {
    if (!clipboard_) {
      clipboard_ = std::make_unique<HostClipboardSync>([this] {
        ++made_;
        return std::make_unique<DesktopClipboard>(desktop_);
      });
    }
    return *clipboard_;
  }
  HostClipboard::Send send() {
    return [this](const std::uint8_t*, std::uint64_t length) {
      const std::lock_guard lock(desktop_.mutex);
      longest_ = std::max(longest_, length);
      desktop_.changed.notify_all();
      return true;
    };
  }
  bool sends(std::uint64_t length) {
    std::unique_lock lock(desktop_.mutex);
    return desktop_.changed.wait_for(lock, Desktop::DEADLINE, [&] { return longest_ == length; });
  }

  TemporaryStore store_;
  Desktop desktop_;
  int made_ = 0;
  std::uint64_t longest_ = 0;
  std::unique_ptr<HostClipboardSync> clipboard_;
};

std::filesystem::path setting() {
  return keystore::hostStoreDirectory() / "clipboard_sync";
}

TEST_F(HostClipboardTest, ItIsMadeForTheFirstSessionAndLivesOn) {
  clipboard().session_end(1);
  const std::uint8_t nothing[1] = {};
  clipboard().receive(nothing, 1);
  EXPECT_EQ(made_, 0);
  for (std::uint32_t session = 1; session <= 3; ++session) {
    clipboard().session_start(session, 1'000, send());
    clipboard().session_end(session);
  }
  EXPECT_EQ(made_, 1);
  EXPECT_EQ(desktop_.starts, 1);
}

TEST_F(HostClipboardTest, AStartThatFailedIsToldOnceAndNotTriedAgain) {
  desktop_.there = false;
  clipboard().session_start(1, 1'000, send());
  clipboard().session_start(2, 1'000, send());
  EXPECT_EQ(desktop_.starts, 1);
  EXPECT_THAT(
      store_.log_lines(),
      ElementsAre("clipboard: could not start the clipboard listener; clipboard sync is off"));
}

TEST_F(HostClipboardTest, WhatIsCopiedGoesToThePresentSessionInPacketsOfItsSize) {
  clipboard().session_start(1, 1'000, send());
  desktop_.copy_text(std::string(5'000, 'x'));
  EXPECT_TRUE(sends(1'000));
  clipboard().resize(2, 1'400);  // another session's
  clipboard().resize(1, 1'300);
  desktop_.copy_text(std::string(5'001, 'x'));
  EXPECT_TRUE(sends(1'300));
}

TEST_F(HostClipboardTest, ALaterSessionReplacesTheOneBeforeAndItsEndDoesNotCount) {
  clipboard().session_start(1, 1'000, {});
  clipboard().session_start(2, 1'100, send());
  clipboard().session_end(1);
  desktop_.copy_text(std::string(5'000, 'x'));
  EXPECT_TRUE(sends(1'100));
}

TEST_F(HostClipboardTest, SyncIsOnUnlessTheFileBeginsWithA0) {
  EXPECT_TRUE(clipboard().enabled());
  std::filesystem::create_directories(setting().parent_path());
  for (const auto& [content, on] : std::map<std::string, bool>{
           {"", true}, {"1\n", true}, {"0\n", false}, {"0", false}, {"x", true}, {" 0", true}}) {
    write_file(setting(), content);
    EXPECT_EQ(clipboard().enabled(), on) << content;
  }
  std::filesystem::remove(setting());
  std::filesystem::create_directory(setting());  // unreadable
  EXPECT_TRUE(clipboard().enabled());
}

TEST_F(HostClipboardTest, TheSettingIsWrittenAndHeldWithoutASession) {
  clipboard().set_enabled(false);
  EXPECT_EQ(file_content(setting()), "0\n");
  EXPECT_FALSE(clipboard().enabled());
  EXPECT_EQ(made_, 0);
  clipboard().session_start(1, 1'000, send());
  EXPECT_FALSE(clipboard().enabled());
  clipboard().set_enabled(true);
  EXPECT_EQ(file_content(setting()), "1\n");
  EXPECT_TRUE(clipboard().enabled());
  EXPECT_THAT(store_.log_lines(), ElementsAre("clipboard sync off", "clipboard sync on"));
}

TEST_F(HostClipboardTest, ASettingThatCannotBeWrittenHoldsForThisRun) {
  store_.break_store();
  clipboard().session_start(1, 1'000, send());
  clipboard().set_enabled(false);
  EXPECT_FALSE(clipboard().enabled());
}

}  // namespace
