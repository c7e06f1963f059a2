// The listener's policy, a step at a time on the virtual clock, over a fake clipboard.
#include "streams/clipboard_listener.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include "streams/clipboard_internal.h"
#include "tests/streams/dib_builder.h"
#include "tests/streams/fake_clipboard.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Bytes = FakeClipboard::Bytes;

constexpr std::uint32_t SESSION = 7;

struct Sent {
  std::uint8_t kind;
  Bytes bytes;
  std::string text() const { return {bytes.begin(), bytes.end()}; }
};

class ClipboardListenerTest : public testing::Test {
 protected:
  ClipboardListenerTest() {
    virtual_time::reset();
    listener.set_session(SESSION);
  }
  // As long as anything is to be done.
  void run() {
    for (int i = 0; i < 20; ++i) listener.step();
  }
  void copy_text(std::string_view text) {
    clipboard.copy_text(text);
    run();
  }
  void copy_dib(const DibBuilder& dib) {
    clipboard.copy({{ClipboardForm::Dib, dib.build()}});
    run();
  }
  void arrive(std::uint8_t kind, const Bytes& bytes, std::uint32_t id = 5) {
    IncomingItem item{.id = id, .kind = kind, .data = nullptr, .size = bytes.size()};
    item.data.reset(clip_allocate(bytes.size()).release());
    std::memcpy(item.data.get(), bytes.data(), bytes.size());
    listener.post(std::move(item));
    run();
  }
  void arrive_text(std::string_view text) { arrive(LUND_CLIP_TEXT, FakeClipboard::bytes(text)); }

  FakeClipboard clipboard;
  std::vector<std::string> lines;
  std::vector<Sent> sent;
  ClipboardListener listener{clipboard, true,
                             [this](const std::string& line) { lines.push_back(line); },
                             [this](std::uint8_t kind, std::span<const std::uint8_t> bytes) {
                               sent.push_back({kind, {bytes.begin(), bytes.end()}});
                             }};
};

Image picture_of(const Bytes& png) {
  Image image;
  EXPECT_TRUE(decode_png(png, &image));
  return image;
}

Bytes png_of(const Image& image) {
  Bytes png;
  EXPECT_TRUE(encode_png(image, &png));
  return png;
}

// ---- Text from here

TEST_F(ClipboardListenerTest, TheSameTextTwiceGoesOutOnceEvenAcrossAReconnect) {
  copy_text("again");
  copy_text("again");
  listener.set_session(0);
  listener.set_session(SESSION + 1);
  copy_text("again");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].kind, LUND_CLIP_TEXT);
  EXPECT_EQ(sent[0].text(), "again");
  copy_text("another");
  copy_text("again");
  EXPECT_EQ(sent.size(), 3u);
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ClipboardListenerTest, OfTextAndABitmapTogetherOnlyTheTextGoes) {
  clipboard.copy({{ClipboardForm::Text, FakeClipboard::bytes("text")},
                  {ClipboardForm::Png, png_of({1, 1, {1, 2, 3, 255}})},
                  {ClipboardForm::Dib, DibBuilder{.rows = {1, 2, 3, 0}}.build()}});
  run();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].kind, LUND_CLIP_TEXT);
}

TEST_F(ClipboardListenerTest, EmptyTextIsNotSentNorWhatStandsBesideIt) {
  clipboard.copy({{ClipboardForm::Text, {}}, {ClipboardForm::Png, png_of({1, 1, {1, 2, 3, 255}})}});
  run();
  copy_text(std::string_view("\0behind", 7));
  EXPECT_THAT(sent, IsEmpty());
}

TEST_F(ClipboardListenerTest, AMebibyteOfTextIsSentAndOneByteMoreIsRefused) {
  copy_text(std::string(1'048'576, 'a'));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].bytes.size(), 1'048'576u);
  copy_text(std::string(1'048'577, 'b'));
  EXPECT_EQ(sent.size(), 1u);
  EXPECT_THAT(lines,
              ElementsAre("clipboard: local text of 1048577 B is over the 1 MB limit; not sent"));
}

TEST_F(ClipboardListenerTest, TheLimitIsOfTheTextAfterCrLfHasBecomeLf) {
  std::string lines_of_text;
  for (int i = 0; i < 1'048'576; ++i) lines_of_text += "\r\n";
  copy_text(lines_of_text);
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text(), std::string(1'048'576, '\n'));
  copy_text("xx" + lines_of_text.substr(2));
  EXPECT_EQ(sent.size(), 1u);
  EXPECT_THAT(lines,
              ElementsAre("clipboard: local text of 1048577 B is over the 1 MB limit; not sent"));
}

TEST_F(ClipboardListenerTest, ATextThatIsTooLargeToBeReadIsRefusedWithItsSize) {
  clipboard.claimed_size = 3'000'000;
  copy_text("whatever");
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_THAT(lines,
              ElementsAre("clipboard: local text of 3000000 B is over the 1 MB limit; not sent"));
}

TEST_F(ClipboardListenerTest, CrLfBecomesLfAndALoneCrStays) {
  copy_text("a\r\nb\rc\nd\r\r\n");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text(), "a\nb\rc\nd\r\n");
}

TEST_F(ClipboardListenerTest, WhatIsNoUtf8IsReplaced) {
  copy_text("\xC3\xA4|\xE4|\xED\xA0\x80|\xF0\x9F\x98\x80|\xC0\x80|\xE2\x82");
  const std::string r = "\xEF\xBF\xBD";
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text(),
            "\xC3\xA4|" + r + "|" + r + r + r + "|\xF0\x9F\x98\x80|" + r + r + "|" + r + r);
}

TEST_F(ClipboardListenerTest, AReadThatFailsSendsNothing) {
  clipboard.reads_fail = true;
  copy_text("text");
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_THAT(lines, IsEmpty());
  EXPECT_EQ(clipboard.open_now, 0);
}

// ---- Whether to send at all

TEST_F(ClipboardListenerTest, WhatWasThereBeforeTheSessionIsNotSent) {
  listener.set_session(0);
  copy_text("before");
  listener.set_session(SESSION);
  run();
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_THAT(clipboard.opened_at_us, IsEmpty());
}

TEST_F(ClipboardListenerTest, WithSyncOffNothingIsRead) {
  listener.set_enabled(false);
  copy_text("secret enough");
  EXPECT_THAT(clipboard.opened_at_us, IsEmpty());
  listener.set_enabled(true);
  run();
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_THAT(lines, ElementsAre("clipboard sync off", "clipboard sync on"));
}

TEST_F(ClipboardListenerTest, APrivateChangeIsNotReadAndSaysSo) {
  clipboard.copy(
      {{ClipboardForm::PrivateMark, {}}, {ClipboardForm::Text, FakeClipboard::bytes("password")}});
  run();
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_EQ(clipboard.reads, 0);
  EXPECT_EQ(clipboard.open_now, 0);
  EXPECT_THAT(lines, ElementsAre("clipboard: local change is marked private "
                                 "(x-kde-passwordManagerHint); not sent"));
}

TEST_F(ClipboardListenerTest, ALockedClipboardIsTriedTenTimesMoreEach30MsAndThenGivenUp) {
  clipboard.locked_for_opens = 1'000;
  const std::uint64_t start_us = lund_now_us();
  copy_text("text");
  ASSERT_EQ(clipboard.opened_at_us.size(), 11u);
  for (std::size_t i = 0; i < 11; ++i) EXPECT_EQ(clipboard.opened_at_us[i], start_us + i * 30'000);
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_THAT(lines, ElementsAre("clipboard: could not open the clipboard to read a change"));
}

TEST_F(ClipboardListenerTest, AClipboardThatOpensAtTheLastTryIsRead) {
  clipboard.locked_for_opens = 10;
  copy_text("text");
  EXPECT_EQ(clipboard.opened_at_us.size(), 11u);
  EXPECT_EQ(sent.size(), 1u);
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ClipboardListenerTest, AnotherChangeHasAllItsTriesAgain) {
  clipboard.locked_for_opens = 15;
  clipboard.copy_text("one");
  for (int i = 0; i < 8; ++i) listener.step();
  EXPECT_EQ(clipboard.opened_at_us.size(), 8u);
  copy_text("two");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text(), "two");
  EXPECT_THAT(lines, IsEmpty());
}

// ---- Pictures from here

TEST_F(ClipboardListenerTest, APngGoesAsItIs) {
  const Bytes png = png_of({2, 1, {1, 2, 3, 4, 5, 6, 7, 8}});
  clipboard.copy({{ClipboardForm::Png, png}, {ClipboardForm::Dib, DibBuilder{}.build()}});
  run();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].kind, LUND_CLIP_PNG);
  EXPECT_EQ(sent[0].bytes, png);
}

TEST_F(ClipboardListenerTest, ABitmapWithoutAnyAlphaArrivesOpaque) {
  copy_dib({.width = 2, .rows = {1, 2, 3, 0, 4, 5, 6, 0}});
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].kind, LUND_CLIP_PNG);
  EXPECT_EQ(picture_of(sent[0].bytes).pixels, (Bytes{1, 2, 3, 255, 4, 5, 6, 255}));
}

TEST_F(ClipboardListenerTest, ATopDownBitmapArrivesUpright) {
  copy_dib({.height = -2, .rows = {1, 1, 1, 255, 2, 2, 2, 255}});
  copy_dib({.height = 2, .rows = {2, 2, 2, 255, 1, 1, 1, 254}});
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(picture_of(sent[0].bytes).pixels, (Bytes{1, 1, 1, 255, 2, 2, 2, 255}));
  EXPECT_EQ(picture_of(sent[1].bytes).pixels, (Bytes{1, 1, 1, 254, 2, 2, 2, 255}));
}

TEST_F(ClipboardListenerTest, ABitmapThatCannotBeConvertedSaysSo) {
  copy_dib({.width = 100, .rows = {1, 2, 3, 4}});
  clipboard.reads_fail = true;
  copy_dib({.rows = {1, 2, 3, 4}});
  clipboard.reads_fail = false;
  clipboard.claimed_size = 1 << 30;
  copy_dib({.rows = {1, 2, 3, 4}});
  EXPECT_THAT(sent, IsEmpty());
  const std::string line = "clipboard: local bitmap could not be converted to PNG";
  EXPECT_THAT(lines, ElementsAre(line, line, line));
  EXPECT_EQ(clipboard.open_now, 0);
}

TEST_F(ClipboardListenerTest, WithoutThePictureLibraryNoPictureGoesOut) {
  clipboard.pictures = false;
  clipboard.copy({{ClipboardForm::Png, png_of({1, 1, {1, 2, 3, 4}})}});
  run();
  copy_dib({.rows = {1, 2, 3, 4}});
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_THAT(lines, IsEmpty());
  EXPECT_EQ(clipboard.open_now, 0);
}

TEST_F(ClipboardListenerTest, AnEmptyPngIsNotSent) {
  clipboard.copy({{ClipboardForm::Png, {}}});
  run();
  EXPECT_THAT(sent, IsEmpty());
}

TEST_F(ClipboardListenerTest, APngTooLargeToBeReadSaysSo) {
  clipboard.claimed_size = 1 << 30;
  clipboard.copy({{ClipboardForm::Png, {1}}});
  run();
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_THAT(lines, ElementsAre("clipboard: local image could not be downscaled"));
}

TEST_F(ClipboardListenerTest, ALargePngThatIsNoneSaysSo) {
  clipboard.copy({{ClipboardForm::Png, Bytes(LUND_CLIP_IMAGE_MAX + 1)}});
  run();
  EXPECT_THAT(sent, IsEmpty());
  EXPECT_THAT(lines, ElementsAre("clipboard: local PNG could not be decoded"));
}

// ---- What comes in

TEST_F(ClipboardListenerTest, TextFromTheClientLandsWithCrLfWhereLinesEndSo) {
  clipboard.kind.crlf = true;
  arrive_text("\na\nb\n");
  ASSERT_TRUE(clipboard.written);
  EXPECT_EQ(clipboard.written->text, "\r\na\r\nb\r\n");
}

TEST_F(ClipboardListenerTest, TextThatHasCrLfAlreadyKeepsIt) {
  clipboard.kind.crlf = true;
  arrive_text("a\r\nb\nc\rd");
  ASSERT_TRUE(clipboard.written);
  EXPECT_EQ(clipboard.written->text, "a\r\nb\r\nc\rd");
}

TEST_F(ClipboardListenerTest, TextFromTheClientStaysAsItIsWhereLinesEndWithLf) {
  arrive_text("a\nb\r\n");
  ASSERT_TRUE(clipboard.written);
  EXPECT_EQ(clipboard.written->text, "a\nb\r\n");
}

TEST_F(ClipboardListenerTest, ANulEndsATextFromTheClient) {
  arrive_text(std::string_view("up to here\0and not on", 21));
  ASSERT_TRUE(clipboard.written);
  EXPECT_EQ(clipboard.written->text, "up to here");
}

TEST_F(ClipboardListenerTest, APictureFromTheClientLandsAsItCameAndOverWhite) {
  const Bytes png = png_of({1, 2, {0, 100, 255, 128, 9, 9, 9, 0}});
  arrive(LUND_CLIP_PNG, png);
  ASSERT_TRUE(clipboard.written);
  EXPECT_EQ(clipboard.written->png, png);
  EXPECT_FALSE(clipboard.written->text);
  Image image;
  ASSERT_TRUE(image_from_dib(clipboard.written->dib, &image));
  // (0 * 128 + 255 * 127 + 127) / 255 and so on; what is transparent is white.
  EXPECT_EQ(image.pixels, (Bytes{127, 177, 255, 255, 255, 255, 255, 255}));
}

TEST_F(ClipboardListenerTest, APictureThatCannotBeReadSaysSo) {
  arrive(LUND_CLIP_PNG, {1, 2, 3}, 41);
  clipboard.pictures = false;
  arrive(LUND_CLIP_PNG, png_of({1, 1, {1, 2, 3, 4}}), 42);
  EXPECT_FALSE(clipboard.written);
  EXPECT_THAT(clipboard.written_at_us, IsEmpty());
  EXPECT_THAT(lines, ElementsAre("clipboard: #41 is not a readable PNG",
                                 "clipboard: #42 is not a readable PNG"));
}

TEST_F(ClipboardListenerTest, AnItemOfAnotherKindIsDroppedInSilence) {
  arrive(3, {1, 2, 3});
  EXPECT_FALSE(clipboard.written);
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ClipboardListenerTest, WithSyncOffAnItemIsNotAppliedAndSaysSo) {
  listener.set_enabled(false);
  arrive_text("text");
  EXPECT_FALSE(clipboard.written);
  EXPECT_THAT(clipboard.written_at_us, IsEmpty());
  EXPECT_THAT(lines, ElementsAre("clipboard sync off", "clipboard: #5 not applied (sync is off)"));
  listener.set_enabled(true);
  arrive_text("text");  // it hasn't been seen
  EXPECT_TRUE(clipboard.written);
}

TEST_F(ClipboardListenerTest, WhatIsAlreadyThereIsNotWrittenAgain) {
  arrive_text("text");
  arrive_text("text");
  EXPECT_EQ(clipboard.written_at_us.size(), 1u);
  EXPECT_THAT(lines, ElementsAre("clipboard: #5 is already on the clipboard"));
}

TEST_F(ClipboardListenerTest, TheSameBytesAsTextAndAsPictureAreTwoItems) {
  arrive_text("text");
  arrive(LUND_CLIP_PNG, FakeClipboard::bytes("text"));
  EXPECT_THAT(lines, ElementsAre("clipboard: #5 is not a readable PNG"));
}

TEST_F(ClipboardListenerTest, AClipboardThatCannotBeWrittenIsTriedTenTimesEach20Ms) {
  clipboard.locked_for_writes = 1'000;
  const std::uint64_t start_us = lund_now_us();
  arrive_text("text");
  ASSERT_EQ(clipboard.written_at_us.size(), 10u);
  for (std::size_t i = 0; i < 10; ++i) EXPECT_EQ(clipboard.written_at_us[i], start_us + i * 20'000);
  EXPECT_THAT(lines, ElementsAre("clipboard: could not open the clipboard to set #5"));
}

TEST_F(ClipboardListenerTest, AWriteAtTheLastTryCounts) {
  clipboard.locked_for_writes = 9;
  arrive_text("text");
  EXPECT_TRUE(clipboard.written);
  EXPECT_THAT(lines, IsEmpty());
}

TEST_F(ClipboardListenerTest, NothingIsTriedAgainOnceItStops) {
  clipboard.locked_for_writes = 1'000;
  listener.stop();
  arrive_text("text");
  EXPECT_EQ(clipboard.written_at_us.size(), 1u);
}

TEST_F(ClipboardListenerTest, OfManyItemsThatWaitTheNewestAreApplied) {
  for (std::uint32_t id = 1; id <= 6; ++id) {
    IncomingItem item{.id = id, .kind = LUND_CLIP_TEXT, .data = nullptr, .size = 1};
    item.data.reset(clip_allocate(1).release());
    item.data[0] = static_cast<std::uint8_t>('0' + id);
    listener.post(std::move(item));
  }
  run();
  EXPECT_EQ(clipboard.written_at_us.size(), 4u);
  EXPECT_EQ(clipboard.written->text, "6");
  EXPECT_THAT(lines, ElementsAre("clipboard: #1 not applied (newer ones are waiting)",
                                 "clipboard: #2 not applied (newer ones are waiting)"));
}

// ---- No loops

TEST_F(ClipboardListenerTest, ItsOwnWriteIsNotReadBack) {
  arrive_text("from the client");
  run();
  EXPECT_THAT(clipboard.opened_at_us, IsEmpty());
  EXPECT_THAT(sent, IsEmpty());
}

TEST_F(ClipboardListenerTest, ContentOfTheClientThatSomeoneWroteAnewDoesNotGoBack) {
  clipboard.kind.crlf = true;
  arrive_text("from\nthe client");
  clipboard.change();
  run();
  EXPECT_EQ(clipboard.reads, 1);
  EXPECT_THAT(sent, IsEmpty());
}

TEST_F(ClipboardListenerTest, AChangeRightBehindItsOwnWriteIsSeen) {
  arrive_text("from the client");
  copy_text("from here");
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].text(), "from here");
}

}  // namespace
