// A whole bridge over the clipboard of Windows, with its peer in memory: what programs copy and
// paste here, Windows' and X's, is what the peer has.
#include "streams/clipboard_bridge.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "streams/png_codec.h"
#include "tests/streams/dib_builder.h"
#include "tests/streams/realtime/bridge_ends.h"
#include "tests/streams/realtime/desktop_clipboard.h"
#include "tests/streams/realtime/windows/other_program.h"
#include "tests/support/clipboard_items.h"
#include "tests/support/windows/native_program.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::Not;
using Bytes = std::vector<std::uint8_t>;
using other_program::DIB;
using other_program::DIB_V5;
using other_program::Holder;
using other_program::PNG;
using other_program::UNICODE_TEXT;

constexpr char TOO_BUSY_TO_READ[] = "clipboard: could not open the clipboard to read a change";

// Where the listener says that it has come, and waits until it may go on.
struct Gate {
  void pass() {
    come.set();
    go.wait(ClipboardAccess::FOREVER_MS);
  }
  WakeEvent come{WakeEvent::Reset::Auto};
  WakeEvent go{WakeEvent::Reset::Manual};
};

// The real one, with a gate between hearing of a change and looking at it, and one behind finding
// the clipboard busy, where they aren't null.
class GatedClipboard final : public ClipboardAccess {
 public:
  GatedClipboard(Gate* change, Gate* refusal) : change_(change), refusal_(refusal) {}

  const ClipboardTraits& traits() const override { return real_->traits(); }
  bool start(const ClipboardLog& log) override { return real_->start(log); }
  void finish() override { real_->finish(); }
  bool has_pictures() override { return real_->has_pictures(); }
  bool wait(std::uint32_t timeout_ms) override {
    const bool changed = real_->wait(timeout_ms);
    if (changed && change_ != nullptr) change_->pass();
    return changed;
  }
  std::uint32_t sequence() override { return real_->sequence(); }
  bool open() override {
    const bool opened = real_->open();
    if (!opened && refusal_ != nullptr) refusal_->pass();
    return opened;
  }
  bool has(ClipboardForm form) override { return real_->has(form); }
  std::optional<ClipboardBlock> read(ClipboardForm form, std::uint64_t most) override {
    return real_->read(form, most);
  }
  void close() override { real_->close(); }
  std::optional<std::uint32_t> write(std::shared_ptr<const ClipboardContent> content) override {
    return real_->write(std::move(content));
  }
  void wake() override { real_->wake(); }
  void interrupt() override { real_->interrupt(); }

 private:
  Gate* const change_;
  Gate* const refusal_;
  const std::unique_ptr<ClipboardAccess> real_ = make_clipboard_access();
};

class WinClipboardBridge : public testing::Test {
 protected:
  void SetUp() override {
    other_program::copy({});
    begin();
  }
  ~WinClipboardBridge() override {
    change_.go.set();
    refusal_.go.set();
  }

  void begin(Gate* change = nullptr, Gate* refusal = nullptr) {
    session_.reset();
    host_.emplace(std::make_unique<GatedClipboard>(change, refusal), host_lines_.log(), true);
    ASSERT_TRUE(host_->start());
    if (!client_started_) {
      ASSERT_TRUE(client_.start());
      client_started_ = true;
    }
    session_.emplace(*host_, client_, ++last_session_);
  }
  std::string at_client(const std::string& text) { return desktop_.text_after_waiting_for(text); }
  // The picture that the peer gets of what has been copied here.
  Image picture_at_client() {
    Image image;
    EXPECT_TRUE(decode_png(desktop_.png_after_waiting(), &image));
    return image;
  }
  void copy_at_client(const std::string& text) {
    desktop_.copy_text(text);
    EXPECT_TRUE(host_lines_.wait_for("received #"));
  }
  // Until a Windows program finds this on the clipboard.
  std::wstring pasted_after_waiting_for(const std::wstring& text) {
    std::wstring pasted;
    for (const auto until = std::chrono::steady_clock::now() + Desktop::DEADLINE;
         pasted != text + L'\0' && std::chrono::steady_clock::now() < until;)
      pasted = other_program::paste_text();
    return pasted;
  }

  Lines host_lines_;
  Lines client_lines_;
  Desktop desktop_;
  Gate change_, refusal_;
  ClipboardSync client_{std::make_unique<DesktopClipboard>(desktop_), client_lines_.log(), true};
  std::optional<ClipboardSync> host_;
  bool client_started_ = false;
  std::uint32_t last_session_ = 0;
  std::optional<BridgeSession> session_;
};

// ---- With Windows programs

TEST_F(WinClipboardBridge, TextGoesOutWithLfAndComesInWithCrLf) {
  other_program::copy_text(L"one\r\ntwo\rthree\nf\u00FCnf");
  EXPECT_EQ(at_client("one\ntwo\rthree\nf\xC3\xBCnf"), "one\ntwo\rthree\nf\xC3\xBCnf");
  copy_at_client("a\nb\r\nc");
  const std::wstring expected = L"a\r\nb\r\nc";
  EXPECT_EQ(pasted_after_waiting_for(expected), expected + L'\0');
}

TEST_F(WinClipboardBridge, WhatItHasPutThereItselfDoesNotGoBack) {
  copy_at_client("from the client");
  EXPECT_EQ(pasted_after_waiting_for(L"from the client"), std::wstring(L"from the client") + L'\0');
  other_program::copy_text(L"from the host");
  EXPECT_EQ(at_client("from the host"), "from the host");
  EXPECT_THAT(client_lines_.all(), Contains(HasSubstr("received #1 text, 13 B")));
  EXPECT_THAT(host_lines_.all(), Not(Contains(HasSubstr("sending #2"))));
}

TEST_F(WinClipboardBridge, TheSameContentWrittenAnewByAManagerDoesNotGoBackEither) {
  copy_at_client("kept by a manager");
  pasted_after_waiting_for(L"kept by a manager");
  other_program::copy_text(L"kept by a manager");
  other_program::copy_text(L"another");
  EXPECT_EQ(at_client("another"), "another");
  EXPECT_THAT(host_lines_.all(), Not(Contains(HasSubstr("sending #2"))));
}

TEST_F(WinClipboardBridge, TheLargestTextGoesBothWaysAndOneByteMoreStaysHere) {
  const std::string text = large_text(1'048'576);
  other_program::copy_text(to_wide(text));
  EXPECT_TRUE(at_client(text) == text);
  other_program::copy_text(to_wide(text) + L"x");
  EXPECT_TRUE(host_lines_.wait_for("local text of 1048577 B is over the 1 MB limit; not sent"));
  other_program::copy_text(std::wstring(20'000'000, L'x'));
  EXPECT_TRUE(host_lines_.wait_for("local text of 20000000 B is over the 1 MB limit; not sent"));
  const std::string back = text.substr(1) + "!";
  copy_at_client(back);
  EXPECT_TRUE(pasted_after_waiting_for(to_wide(back)) == to_wide(back) + L'\0');
}

TEST_F(WinClipboardBridge, APngGoesBothWaysByteForByteAndABitmapLandsBesideIt) {
  const Bytes png = noise_png(300);
  other_program::copy({{PNG, text_of(png)}});
  EXPECT_TRUE(desktop_.png_after_waiting() == png);

  const Image half{2, 1, {0, 100, 255, 128, 7, 8, 9, 255}};
  const Bytes back = png_of(half);
  desktop_.copy(ClipboardForm::Png, back);
  std::optional<std::string> pasted;
  for (const auto until = std::chrono::steady_clock::now() + Desktop::DEADLINE;
       pasted != text_of(back) && std::chrono::steady_clock::now() < until;)
    pasted = other_program::paste(PNG);
  EXPECT_TRUE(pasted == text_of(back));
  EXPECT_TRUE(other_program::paste(DIB) == text_of(dib_over_white(half)));
}

TEST_F(WinClipboardBridge, OfTextAndPicturesTheTextGoesAndOfPicturesThePng) {
  const Bytes png = png_of({1, 1, {1, 2, 3, 255}});
  const Bytes dib = dib_over_white({1, 1, {9, 9, 9, 255}});
  other_program::copy({{PNG, text_of(png)}, {DIB, text_of(dib)}});
  EXPECT_TRUE(desktop_.png_after_waiting() == png);
  other_program::copy({{DIB, text_of(dib)}, {UNICODE_TEXT, other_program::text_block(L"text")}});
  EXPECT_EQ(at_client("text"), "text");
  EXPECT_THAT(host_lines_.all(), Contains(HasSubstr("sending #2 text")));
}

TEST_F(WinClipboardBridge, APrivateChangeStaysHere) {
  other_program::copy({{UNICODE_TEXT, other_program::text_block(L"password")},
                       {"ExcludeClipboardContentFromMonitorProcessing", "x"}});
  EXPECT_TRUE(host_lines_.wait_for(
      "local change is marked private (ExcludeClipboardContentFromMonitorProcessing); not sent"));
  other_program::copy_text(L"public");
  EXPECT_EQ(at_client("public"), "public");
  EXPECT_THAT(client_lines_.all(), Contains(HasSubstr("received #1 text, 6 B")));
}

// ---- Bitmaps, each as some program has it

struct NamedDib {
  const char* name;
  const char* format;
  DibBuilder dib;
  Bytes pixels;  // two, the upper one first
};

void PrintTo(const NamedDib& variant, std::ostream* out) {
  *out << variant.name;
}

class WinClipboardBitmap : public WinClipboardBridge,
                           public testing::WithParamInterface<NamedDib> {};

TEST_P(WinClipboardBitmap, ArrivesAsItWasMeant) {
  const Bytes block = GetParam().dib.build();
  other_program::copy({{GetParam().format, text_of(block)}});
  const Image image = picture_at_client();
  EXPECT_EQ(image.width, 1u);
  EXPECT_EQ(image.height, 2u);
  EXPECT_EQ(image.pixels, GetParam().pixels);
}

const Bytes OPAQUE_PAIR{1, 2, 3, 255, 4, 5, 6, 255};
const std::vector<std::uint32_t> BGRA_MASKS{0xFF0000, 0xFF00, 0xFF, 0xFF000000};

INSTANTIATE_TEST_SUITE_P(
    Variants, WinClipboardBitmap,
    testing::Values(NamedDib{"BottomUp24",
                             DIB,
                             {.height = 2, .bits = 24, .rows = {4, 5, 6, 0, 1, 2, 3, 0}},
                             OPAQUE_PAIR},
                    NamedDib{"TopDown24",
                             DIB,
                             {.height = -2, .bits = 24, .rows = {1, 2, 3, 0, 4, 5, 6, 0}},
                             OPAQUE_PAIR},
                    NamedDib{"BottomUp32WithoutAlpha",
                             DIB,
                             {.height = 2, .rows = {4, 5, 6, 0, 1, 2, 3, 0}},
                             OPAQUE_PAIR},
                    NamedDib{"TopDown32WithAlpha",
                             DIB,
                             {.height = -2, .rows = {1, 2, 3, 4, 5, 6, 7, 8}},
                             {1, 2, 3, 4, 5, 6, 7, 8}},
                    NamedDib{"V5TopDownWithMasks",
                             DIB_V5,
                             {.header_bytes = 124,
                              .height = -2,
                              .compression = DIB_BITFIELDS,
                              .masks = BGRA_MASKS,
                              .rows = {1, 2, 3, 4, 5, 6, 7, 8}},
                             {1, 2, 3, 4, 5, 6, 7, 8}},
                    NamedDib{"OtherMasks",
                             DIB,
                             {.height = 2,
                              .compression = DIB_BITFIELDS,
                              .masks = {0xFF, 0xFF00, 0xFF0000},
                              .rows = {6, 5, 4, 0, 3, 2, 1, 0}},
                             OPAQUE_PAIR},
                    NamedDib{"Palette8",
                             DIB,
                             {.height = -2,
                              .bits = 8,
                              .colours_used = 2,
                              .palette = {0x030201, 0x060504},
                              .rows = {0, 0, 0, 0, 1, 0, 0, 0}},
                             OPAQUE_PAIR},
                    NamedDib{"Rgb565",
                             DIB,
                             {.height = 2,
                              .bits = 16,
                              .compression = DIB_BITFIELDS,
                              .masks = {0xF800, 0x7E0, 0x1F},
                              .rows = {0x1F, 0x00, 0, 0, 0x00, 0xF8, 0, 0}},
                             {0, 0, 255, 255, 255, 0, 0, 255}},
                    // Two of one row, one of the next, the end.
                    NamedDib{"RunLengths8",
                             DIB,
                             {.height = 2,
                              .bits = 8,
                              .compression = 1,
                              .colours_used = 2,
                              .palette = {0x030201, 0x060504},
                              .rows = {1, 1, 0, 0, 1, 0, 0, 1}},
                             OPAQUE_PAIR}),
    [](const auto& variant) { return std::string(variant.param.name); });

TEST_F(WinClipboardBridge, ABitmapThatIsNoneSaysSoAndTheNextOneGoes) {
  other_program::copy({{DIB_V5, std::string(200, '\xFF')}});
  EXPECT_TRUE(host_lines_.wait_for("local bitmap could not be converted to PNG"));
  other_program::copy({{DIB, text_of(dib_over_white({1, 1, {1, 2, 3, 255}}))}});
  EXPECT_EQ(picture_at_client().pixels, (Bytes{1, 2, 3, 255}));
}

// ---- With a clipboard that is busy

TEST_F(WinClipboardBridge, AClipboardThatIsBusyForAWhileIsReadWhenItIsFree) {
  begin(&change_, &refusal_);
  other_program::copy_text(L"while busy");
  ASSERT_TRUE(change_.come.wait(20'000));
  {
    const Holder holder;
    change_.go.set();
    ASSERT_TRUE(refusal_.come.wait(20'000));
  }
  refusal_.go.set();
  EXPECT_EQ(at_client("while busy"), "while busy");
  EXPECT_THAT(host_lines_.all(), Not(Contains(TOO_BUSY_TO_READ)));
}

TEST_F(WinClipboardBridge, AClipboardThatStaysBusyIsGivenUpWithOneLineEachWay) {
  begin(&change_);
  other_program::copy_text(L"never read");
  ASSERT_TRUE(change_.come.wait(20'000));
  {
    const Holder holder;
    change_.go.set();
    EXPECT_TRUE(host_lines_.wait_for(TOO_BUSY_TO_READ));
    desktop_.copy_text("never written");
    EXPECT_TRUE(host_lines_.wait_for("clipboard: could not open the clipboard to set #1"));
  }
  other_program::copy_text(L"the next one");
  EXPECT_EQ(at_client("the next one"), "the next one");
  const auto lines = host_lines_.all();
  EXPECT_EQ(std::count(lines.begin(), lines.end(), TOO_BUSY_TO_READ), 1);
}

// ---- With X programs, through Wine

class WinClipboardX : public WinClipboardBridge {
 protected:
  void SetUp() override {
    if (!under_wine()) GTEST_SKIP() << "there are no X programs here";
    WinClipboardBridge::SetUp();
  }
  void xclip_copy(const std::string& content, const std::string& target) {
    write_file(shell_.directory() / "copied", content);
    const auto copied = shell_.run("xclip -selection clipboard -t " + target + " -i copied");
    ASSERT_TRUE(copied);
    EXPECT_EQ(copied->status, 0) << copied->output;
  }
  // Until an X program is given this.
  std::string xclip_pasted(const std::string& content, const std::string& target) {
    std::optional<NativeShell::Result> pasted;
    for (const auto until = std::chrono::steady_clock::now() + Desktop::DEADLINE;
         (!pasted || pasted->output != content) && std::chrono::steady_clock::now() < until;)
      pasted = shell_.run("timeout 5 xclip -selection clipboard -t " + target + " -o");
    return pasted ? pasted->output : "no end";
  }

  NativeShell shell_;
};

TEST_F(WinClipboardX, TextGoesBothWays) {
  xclip_copy(
      "gr\xC3\xBC\xC3\x9F"
      "e\nvon X",
      "UTF8_STRING");
  EXPECT_EQ(at_client("gr\xC3\xBC\xC3\x9F"
                      "e\nvon X"),
            "gr\xC3\xBC\xC3\x9F"
            "e\nvon X");
  copy_at_client("zu X\nmit \xF0\x9F\x98\x80");
  EXPECT_EQ(xclip_pasted("zu X\nmit \xF0\x9F\x98\x80", "UTF8_STRING"),
            "zu X\nmit \xF0\x9F\x98\x80");
}

TEST_F(WinClipboardX, APngGoesBothWaysByteForByte) {
  const Bytes png = noise_png(300);
  xclip_copy(text_of(png), "image/png");
  EXPECT_TRUE(desktop_.png_after_waiting() == png);
  const Bytes back = noise_png(200);
  desktop_.copy(ClipboardForm::Png, back);
  EXPECT_TRUE(xclip_pasted(text_of(back), "image/png") == text_of(back));
}

}  // namespace
