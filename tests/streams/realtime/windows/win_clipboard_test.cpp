// The clipboard of Windows itself, exchanged with a program of its own process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

#include "streams/clipboard_access.h"
#include "streams/png_codec.h"
#include "tests/streams/dib_builder.h"
#include "tests/streams/realtime/clipboard_user.h"
#include "tests/streams/realtime/windows/other_program.h"

namespace {

using Bytes = std::vector<std::uint8_t>;
using other_program::DIB;
using other_program::DIB_V5;
using other_program::Holder;
using other_program::PNG;
using other_program::UNICODE_TEXT;

constexpr std::uint32_t SOON_MS = 10'000;
constexpr std::uint64_t PICTURE_MAX = 64 << 20;
constexpr wchar_t PRIVATE[] = L"ExcludeClipboardContentFromMonitorProcessing";

class WinClipboardTest : public testing::Test, protected ClipboardUser {
 protected:
  void SetUp() override {
    ASSERT_TRUE(access_->start([](const std::string& line) { ADD_FAILURE() << line; }));
    ASSERT_TRUE(access_->has_pictures());
  }
  void TearDown() override { access_->finish(); }

  // This is on the clipboard, and the listener has been told.
  void copy(const std::vector<std::pair<std::string, std::string>>& blocks) {
    other_program::copy(blocks);
    EXPECT_TRUE(access_->wait(SOON_MS)) << "no change";
  }
  void copy_text(const std::wstring& text) {
    other_program::copy_text(text);
    EXPECT_TRUE(access_->wait(SOON_MS)) << "no change";
  }
  ClipboardAccess& access() override { return *access_; }
  bool has(ClipboardForm form) {
    EXPECT_TRUE(access_->open());
    const bool there = access_->has(form);
    access_->close();
    return there;
  }

  std::unique_ptr<ClipboardAccess> access_ = make_clipboard_access();
};

// ---- Text

TEST_F(WinClipboardTest, TextIsReadFromAnotherProgramAsUtf8) {
  copy_text(L"gr\u00FC\u00DFe\r\nzwei \U0001F600");
  EXPECT_EQ(read_text(),
            "gr\xC3\xBC\xC3\x9F"
            "e\r\nzwei \xF0\x9F\x98\x80");
}

TEST_F(WinClipboardTest, TextIsGivenToAnotherProgramAsUtf16WithItsEnd) {
  put(
      text_content("gr\xC3\xBC\xC3\x9F"
                   "e\r\n\xF0\x9F\x98\x80"));
  EXPECT_EQ(other_program::paste_text(), std::wstring(L"gr\u00FC\u00DFe\r\n\U0001F600") + L'\0');
}

TEST_F(WinClipboardTest, TextEndsAtItsFirstNul) {
  copy_text(std::wstring(L"one\0two", 7));
  EXPECT_EQ(read_text(), "one");
}

TEST_F(WinClipboardTest, HalfACharacterBecomesOneThatSaysSo) {
  copy_text(
      L"a\xD83D"
      L"b");
  EXPECT_EQ(read_text(),
            "a\xEF\xBF\xBD"
            "b");
}

TEST_F(WinClipboardTest, AnEmptyTextIsOne) {
  copy_text(L"");
  EXPECT_EQ(read_text(), "");
  put(text_content(""));
  EXPECT_EQ(other_program::paste_text(), std::wstring(1, L'\0'));
}

TEST_F(WinClipboardTest, AnOldProgramsTextIsReadAsTheSystemTranslatesIt) {
  copy({{"1", std::string("plain\0", 6)}});  // CF_TEXT
  EXPECT_EQ(read_text(), "plain");
}

TEST_F(WinClipboardTest, AMebibyteOfTextGoesBothWays) {
  const std::string text = large_text(1'048'576);
  copy_text(to_wide(text));
  EXPECT_TRUE(read_text() == text);
  put(text_content(text));
  EXPECT_TRUE(other_program::paste_text() == to_wide(text) + L'\0');
}

TEST_F(WinClipboardTest, MoreThanMayBeReadIsCountedAndNotHeld) {
  copy_text(std::wstring(1'001, L'\u00FC'));
  const auto refused = read(ClipboardForm::Text, 2'001);
  ASSERT_TRUE(refused);
  EXPECT_TRUE(refused->bytes.empty());
  EXPECT_EQ(refused->size, 2'002u);
  const auto taken = read(ClipboardForm::Text, 2'002);
  ASSERT_TRUE(taken);
  EXPECT_EQ(taken->bytes.size(), 2'002u);
  copy({{PNG, std::string(1'001, 'x')}});
  const auto picture = read(ClipboardForm::Png, 1'000);
  ASSERT_TRUE(picture);
  EXPECT_TRUE(picture->bytes.empty());
  EXPECT_EQ(picture->size, 1'001u);
}

TEST_F(WinClipboardTest, OfAHugeTextTheSizeIsToldAndNothingHeld) {
  copy_text(std::wstring(20'000'000, L'x'));
  const auto block = read(ClipboardForm::Text, CLIPBOARD_TEXT_MAX);
  ASSERT_TRUE(block);
  EXPECT_TRUE(block->bytes.empty());
  EXPECT_EQ(block->size, 20'000'000u);
}

// ---- Pictures

TEST_F(WinClipboardTest, APngGoesBothWaysByteForByteAndABitmapBesideIt) {
  const Bytes png = noise_png(700);  // 2 MB
  copy({{PNG, text_of(png)}});
  const auto block = read(ClipboardForm::Png, PICTURE_MAX);
  ASSERT_TRUE(block);
  EXPECT_TRUE(block->bytes == png);

  Image image;
  ASSERT_TRUE(decode_png(png, &image));
  const Bytes dib = dib_over_white(image);
  auto content = std::make_shared<ClipboardContent>();
  content->dib = dib;
  content->png = png;
  put(content);
  EXPECT_TRUE(other_program::paste(PNG) == text_of(png));
  EXPECT_TRUE(other_program::paste(DIB) == text_of(dib));
  EXPECT_FALSE(has(ClipboardForm::Text));
}

TEST_F(WinClipboardTest, OfTwoBitmapsTheOneWithTheNewerHeaderIsRead) {
  const Bytes old_one = DibBuilder{.rows = {1, 2, 3, 4}}.build();
  const Bytes new_one = DibBuilder{.header_bytes = 124, .rows = {5, 6, 7, 8}}.build();
  copy({{DIB, text_of(old_one)}, {DIB_V5, text_of(new_one)}});
  const auto newer = read(ClipboardForm::Dib, PICTURE_MAX);
  ASSERT_TRUE(newer);
  EXPECT_EQ(newer->bytes, new_one);
}

TEST_F(WinClipboardTest, ANewerHeaderThatDoesNotHoldTogetherGivesWayToAnOlderOne) {
  const Bytes old_one = DibBuilder{.rows = {1, 2, 3, 4}}.build();
  const Bytes cut = DibBuilder{.header_bytes = 124, .rows = {5, 6, 7}}.build();
  copy({{DIB, text_of(old_one)}, {DIB_V5, text_of(cut)}});
  const auto older = read(ClipboardForm::Dib, PICTURE_MAX);
  ASSERT_TRUE(older);
  EXPECT_EQ(older->bytes, old_one);
}

TEST_F(WinClipboardTest, ABitmapAloneIsRead) {
  const Bytes dib = dib_over_white({2, 1, {1, 2, 3, 255, 4, 5, 6, 255}});
  copy({{DIB, text_of(dib)}});
  const auto block = read(ClipboardForm::Dib, PICTURE_MAX);
  ASSERT_TRUE(block);
  Image image;
  ASSERT_TRUE(image_from_dib(block->bytes, &image));
  EXPECT_EQ(image.pixels, (Bytes{1, 2, 3, 255, 4, 5, 6, 255}));
}

// ---- What is on it, and whose

TEST_F(WinClipboardTest, APrivateMarkIsSeenWhateverItHolds) {
  copy({{UNICODE_TEXT, other_program::text_block(L"secret")}, {to_utf8(PRIVATE), "x"}});
  EXPECT_TRUE(has(ClipboardForm::PrivateMark));
  copy_text(L"no secret");
  EXPECT_FALSE(has(ClipboardForm::PrivateMark));
}

TEST_F(WinClipboardTest, AnEmptyClipboardHasNothing) {
  copy({});
  for (const ClipboardForm form :
       {ClipboardForm::PrivateMark, ClipboardForm::Text, ClipboardForm::Png, ClipboardForm::Dib})
    EXPECT_FALSE(has(form));
  ASSERT_TRUE(access_->open());
  EXPECT_FALSE(access_->read(ClipboardForm::Text, CLIPBOARD_TEXT_MAX));
  access_->close();
}

TEST_F(WinClipboardTest, ItsOwnWriteHasTheNumberThatItSaysAndAnothersBehindItANewOne) {
  const std::uint32_t own = put(text_content("mine"));
  EXPECT_TRUE(access_->wait(SOON_MS));  // it is told of its own change, too
  EXPECT_EQ(access_->sequence(), own);
  copy_text(L"theirs");
  EXPECT_NE(access_->sequence(), own);
  EXPECT_EQ(read_text(), "theirs");
  EXPECT_NE(put(text_content("mine")), own);
}

TEST_F(WinClipboardTest, WhatItWritesReplacesAllThatWasThere) {
  copy({{UNICODE_TEXT, other_program::text_block(L"old")}, {to_utf8(PRIVATE), "x"}});
  auto content = std::make_shared<ClipboardContent>();
  content->png = {1, 2, 3};
  put(content);
  EXPECT_FALSE(has(ClipboardForm::Text));
  EXPECT_FALSE(has(ClipboardForm::PrivateMark));
  EXPECT_TRUE(has(ClipboardForm::Png));
}

TEST_F(WinClipboardTest, WhileAnotherProgramHasItOpenItCanNeitherBeReadNorWritten) {
  copy_text(L"before");
  {
    const Holder holder;
    EXPECT_FALSE(access_->open());
    EXPECT_FALSE(access_->write(text_content("nobody's")));
  }
  EXPECT_EQ(read_text(), "before");
  put(text_content("after"));
  EXPECT_EQ(other_program::paste_text(), std::wstring(L"after") + L'\0');
}

// ---- Waiting

TEST_F(WinClipboardTest, AWaitEndsWithItsTimeOrAWakeAndOnlyAChangeIsOne) {
  EXPECT_FALSE(access_->wait(0));
  EXPECT_FALSE(access_->wait(30));
  auto woken = std::async(std::launch::async, [this] { access_->wake(); });
  EXPECT_FALSE(access_->wait(ClipboardAccess::FOREVER_MS));
  woken.get();
  access_->wake();  // ahead of the wait
  EXPECT_FALSE(access_->wait(ClipboardAccess::FOREVER_MS));
  copy_text(L"one");
  EXPECT_FALSE(access_->wait(0));  // told once
}

TEST_F(WinClipboardTest, InterruptedItWaitsForNothing) {
  auto interrupted = std::async(std::launch::async, [this] { access_->interrupt(); });
  EXPECT_FALSE(access_->wait(ClipboardAccess::FOREVER_MS));
  interrupted.get();
  EXPECT_FALSE(access_->wait(ClipboardAccess::FOREVER_MS));
  access_->wake();
  EXPECT_FALSE(access_->wait(ClipboardAccess::FOREVER_MS));
  EXPECT_FALSE(access_->open());
  EXPECT_FALSE(access_->write(text_content("nobody's")));
}

TEST_F(WinClipboardTest, AnotherProgramCannotCloseItsWindow) {
  ASSERT_TRUE(other_program::ends_well(other_program::start(L"close LunderhazeClipboardSync")));
  EXPECT_FALSE(access_->wait(SOON_MS));  // the message
  copy_text(L"still heard");
  EXPECT_EQ(read_text(), "still heard");
}

TEST_F(WinClipboardTest, SeveralListenersHearOfAChange) {
  const auto second = make_clipboard_access();
  ASSERT_TRUE(second->start([](const std::string&) {}));
  copy_text(L"to both");
  EXPECT_TRUE(second->wait(SOON_MS));
  second->finish();
  copy_text(L"to one");
  EXPECT_EQ(read_text(), "to one");
}

TEST_F(WinClipboardTest, IdleItTakesNoProcessorTime) {
  const auto cpu_us = [] {
    FILETIME created, ended, kernel, user;
    GetProcessTimes(GetCurrentProcess(), &created, &ended, &kernel, &user);
    return (kernel.dwLowDateTime + std::uint64_t{user.dwLowDateTime}) / 10;
  };
  const std::uint64_t before = cpu_us();
  access_->wait(1'000);
  EXPECT_LT(cpu_us() - before, 100'000u);
}

}  // namespace
