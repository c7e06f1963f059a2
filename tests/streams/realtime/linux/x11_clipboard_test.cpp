// The clipboard of a real X server, exchanged with xclip and with programs that misbehave.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>
#include <mutex>

#include "connection/clock.h"
#include "streams/clipboard_access.h"
#include "streams/png_codec.h"
#include "tests/streams/realtime/bridge_ends.h"
#include "tests/streams/realtime/clipboard_user.h"
#include "tests/support/linux/other_program.h"
#include "tests/support/linux/xclip.h"
#include "tests/support/xvfb.h"

namespace {

using testing::Contains;
using testing::Not;
using Bytes = std::vector<std::uint8_t>;

constexpr std::uint32_t SOON_MS = 10'000;
constexpr std::uint64_t PICTURE_MAX = 64 << 20;

class X11ClipboardTest : public testing::Test, protected ClipboardUser {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server_.running());
    ASSERT_TRUE(access_->start([this](const std::string& line) {
      const std::lock_guard lock(mutex_);
      lines_.push_back(line);
    }));
  }

  // Until what is returned goes, this is on the clipboard, and the listener has been told.
  std::unique_ptr<Xclip> copy(const std::string& content, const std::string& target) {
    auto xclip = std::make_unique<Xclip>(server_.display());
    xclip->copy(content, target);
    EXPECT_TRUE(access_->wait(SOON_MS)) << "no change";
    return xclip;
  }
  std::string paste(const std::string& target) { return xclip_paste(server_.display(), target); }
  ClipboardAccess& access() override { return *access_; }
  std::uint32_t put_text(const std::string& text) { return put(text_content(text)); }
  // What the listener does while the test plays the other program.
  std::future<bool> opening() {
    return std::async(std::launch::async, [this] { return access_->open(); });
  }
  std::future<std::optional<ClipboardBlock>> reading(ClipboardForm form, std::uint64_t most) {
    return std::async(std::launch::async, [this, form, most] { return access_->read(form, most); });
  }
  // The other program copies something, and the listener has opened it.
  void open_for(OtherProgram& program, const std::vector<std::uint32_t>& targets) {
    program.own();
    ASSERT_TRUE(access_->wait(SOON_MS));
    auto opened = opening();
    program.answer_targets(targets);
    ASSERT_TRUE(opened.get());
  }
  std::vector<std::string> lines() {
    const std::lock_guard lock(mutex_);
    return lines_;
  }

  Xvfb server_{64, 64};
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::unique_ptr<ClipboardAccess> access_ = make_clipboard_access();
};

constexpr char SILENT[] = "clipboard: the program that owns the selection doesn't answer";

// ---- With a well-behaved program

TEST_F(X11ClipboardTest, TextIsReadFromAnotherProgram) {
  const auto xclip = copy(
      "gr\xC3\xBC\xC3\x9F"
      "e\nzwei",
      "UTF8_STRING");
  EXPECT_EQ(read_text(),
            "gr\xC3\xBC\xC3\x9F"
            "e\nzwei");
}

TEST_F(X11ClipboardTest, TextIsGivenToAnotherProgramInEachForm) {
  put_text(
      "gr\xC3\xBC\xC3\x9F"
      "e");
  EXPECT_EQ(paste("UTF8_STRING"),
            "gr\xC3\xBC\xC3\x9F"
            "e");
  EXPECT_EQ(paste("text/plain;charset=utf-8"),
            "gr\xC3\xBC\xC3\x9F"
            "e");
  EXPECT_EQ(paste("TEXT"),
            "gr\xC3\xBC\xC3\x9F"
            "e");
  OtherProgram old;
  old.ask(XCB_ATOM_STRING);  // Latin-1
  ASSERT_TRUE(old.answered());
  EXPECT_EQ(text_of(old.take().bytes),
            "gr\xFC\xDF"
            "e");
}

TEST_F(X11ClipboardTest, TextThatLatin1HasNotIsNotOfferedInIt) {
  put_text("\xE2\x82\xAC");
  EXPECT_EQ(paste("TARGETS"),
            "TARGETS\nMULTIPLE\nTIMESTAMP\nUTF8_STRING\ntext/plain;charset=utf-8\nTEXT\n");
  OtherProgram old;
  old.ask(XCB_ATOM_STRING);
  EXPECT_FALSE(old.answered());
}

TEST_F(X11ClipboardTest, AMebibyteOfTextGoesBothWaysInPieces) {
  const std::string text = large_text(1'048'576);
  {
    const auto xclip = copy(text, "UTF8_STRING");
    EXPECT_TRUE(read_text() == text);
  }
  ASSERT_TRUE(access_->wait(SOON_MS));  // xclip is gone, and what it had
  put_text(text);
  EXPECT_TRUE(paste("UTF8_STRING") == text);
}

TEST_F(X11ClipboardTest, APngGoesBothWays) {
  const Bytes png = noise_png(700);  // 2 MB
  {
    const auto xclip = copy(text_of(png), "image/png");
    const auto block = read(ClipboardForm::Png, PICTURE_MAX);
    ASSERT_TRUE(block);
    EXPECT_TRUE(block->bytes == png);
  }
  ASSERT_TRUE(access_->wait(SOON_MS));
  Image image;
  ASSERT_TRUE(decode_png(png, &image));
  const Bytes dib = dib_over_white(image);
  auto content = std::make_shared<ClipboardContent>();
  content->dib = dib;
  content->png = png;
  put(content);
  EXPECT_TRUE(paste("image/png") == text_of(png));
  EXPECT_TRUE(paste("image/bmp") == text_of(bmp_file_from_dib(dib)));
  EXPECT_EQ(paste("TARGETS"), "TARGETS\nMULTIPLE\nTIMESTAMP\nimage/png\nimage/bmp\n");
}

TEST_F(X11ClipboardTest, ABitmapIsReadWithoutItsFilesHeader) {
  const Bytes dib = dib_over_white({2, 1, {1, 2, 3, 255, 4, 5, 6, 255}});
  const auto xclip = copy(text_of(bmp_file_from_dib(dib)), "image/bmp");
  const auto block = read(ClipboardForm::Dib, PICTURE_MAX);
  ASSERT_TRUE(block);
  EXPECT_EQ(block->bytes, dib);
}

TEST_F(X11ClipboardTest, ItsOwnWriteIsNoChangeAndAnothersBehindItIs) {
  const std::uint32_t own = put_text("mine");
  EXPECT_EQ(access_->sequence(), own);
  const auto xclip = copy("theirs", "UTF8_STRING");
  EXPECT_EQ(access_->sequence(), own + 1);
  EXPECT_EQ(read_text(), "theirs");
}

TEST_F(X11ClipboardTest, WhatASelectionLostToAnotherOfferedIsServedNoMore) {
  put_text("mine");
  const auto xclip = copy("theirs", "UTF8_STRING");
  EXPECT_EQ(paste("UTF8_STRING"), "theirs");
  put_text("mine again");
  EXPECT_EQ(paste("UTF8_STRING"), "mine again");
}

TEST_F(X11ClipboardTest, AClipboardThatNobodyOwnsIsEmpty) {
  copy("gone at once", "UTF8_STRING");
  ASSERT_TRUE(access_->wait(SOON_MS));
  ASSERT_TRUE(access_->open());
  EXPECT_FALSE(access_->has(ClipboardForm::Png));
  EXPECT_FALSE(access_->has(ClipboardForm::PrivateMark));
  EXPECT_FALSE(access_->read(ClipboardForm::Text, CLIPBOARD_TEXT_MAX));
}

TEST_F(X11ClipboardTest, SeveralTargetsAreServedAtOnceAndThoseItHasNotAreNamed) {
  const std::string text = large_text(300'000);
  put_text(text);
  OtherProgram program;
  const xcb_atom_t in_pieces = program.atoms.text;  // any names do for properties
  const xcb_atom_t never = program.atoms.png;
  const std::uint32_t pairs[] = {program.atoms.utf8_string, in_pieces, program.atoms.png, never};
  xcb_change_property(program.connection, XCB_PROP_MODE_REPLACE, program.window.id(),
                      program.atoms.transfer, program.atoms.atom_pair, 32, 4, pairs);
  program.ask(program.atoms.multiple);
  ASSERT_TRUE(program.answered());
  const auto answer = program.take();
  ASSERT_EQ(answer.bytes.size(), 16u);
  EXPECT_EQ(answer.word(0), program.atoms.utf8_string);
  EXPECT_EQ(answer.word(1), in_pieces);
  EXPECT_EQ(answer.word(2), XCB_NONE);
  const auto announced = program.take(in_pieces);
  EXPECT_EQ(announced.type, program.atoms.incr);
  EXPECT_EQ(announced.word(0), text.size());
}

TEST_F(X11ClipboardTest, ItSaysSinceWhenItOwnsAndRefusesWhoAsksForTheTimeBefore) {
  put_text("text");
  OtherProgram program;
  program.ask(program.atoms.timestamp);
  ASSERT_TRUE(program.answered());
  const std::uint32_t since = program.take().word(0);
  EXPECT_NE(since, 0u);
  program.ask(program.atoms.utf8_string, since - 1);
  EXPECT_FALSE(program.answered());
  program.ask(program.atoms.utf8_string, since);
  EXPECT_TRUE(program.answered());
}

// ---- With programs that misbehave

TEST_F(X11ClipboardTest, AnOwnerThatNeverAnswersHoldsUpNobodyForLong) {
  OtherProgram program;
  program.own();
  ASSERT_TRUE(access_->wait(SOON_MS));
  EXPECT_FALSE(access_->open());
  EXPECT_THAT(lines(), Contains(SILENT));
  // And one who has answered at first.
  OtherProgram hopeful;
  open_for(hopeful, {hopeful.atoms.utf8_string});
  EXPECT_FALSE(access_->read(ClipboardForm::Text, CLIPBOARD_TEXT_MAX));
  // The clipboard is of use again.
  put_text("mine");
  EXPECT_EQ(paste("UTF8_STRING"), "mine");
}

TEST_F(X11ClipboardTest, AnOwnerThatStopsBetweenPiecesHoldsUpNobodyForLong) {
  OtherProgram program;
  open_for(program, {program.atoms.utf8_string});
  auto block = reading(ClipboardForm::Text, CLIPBOARD_TEXT_MAX);
  const auto request = program.announce(program.atoms.utf8_string, 1'000'000);
  program.piece(request, program.atoms.utf8_string, "the first");
  EXPECT_FALSE(block.get());
  EXPECT_THAT(lines(), Contains(SILENT));
}

TEST_F(X11ClipboardTest, AnOwnerThatDiesBetweenPiecesEndsTheTransfer) {
  auto program = std::make_unique<OtherProgram>();
  open_for(*program, {program->atoms.utf8_string});
  auto block = reading(ClipboardForm::Text, CLIPBOARD_TEXT_MAX);
  const auto request = program->announce(program->atoms.utf8_string, 1'000'000);
  program->piece(request, program->atoms.utf8_string, "the first");
  program.reset();
  EXPECT_FALSE(block.get());
  EXPECT_TRUE(access_->wait(SOON_MS));
  EXPECT_THAT(lines(), Not(Contains(SILENT)));  // it was the death that ended it
}

TEST_F(X11ClipboardTest, ANewChangeEndsTheReadingOfTheLast) {
  OtherProgram program;
  open_for(program, {program.atoms.utf8_string});
  auto block = reading(ClipboardForm::Text, CLIPBOARD_TEXT_MAX);
  program.announce(program.atoms.utf8_string, 1'000'000);
  OtherProgram newer;
  newer.own();
  EXPECT_FALSE(block.get());
  EXPECT_TRUE(access_->wait(SOON_MS));
  EXPECT_THAT(lines(), Not(Contains(SILENT)));
}

TEST_F(X11ClipboardTest, PiecesOfAnySizeMakeTheWhole) {
  OtherProgram program;
  open_for(program, {program.atoms.text_utf8});
  auto block = reading(ClipboardForm::Text, CLIPBOARD_TEXT_MAX);
  const auto request = program.announce(program.atoms.text_utf8, 0);
  for (const char* piece : {"a", "bcd", "efghijklm", ""})
    program.piece(request, program.atoms.text_utf8, piece);
  const auto read = block.get();
  ASSERT_TRUE(read);
  EXPECT_EQ(text_of(read->bytes), "abcdefghijklm");
}

TEST_F(X11ClipboardTest, MoreThanMayBeReadIsRefusedWithItsSizeAndNotHeld) {
  OtherProgram program;
  const auto refused = [&](auto answer) {
    auto block = reading(ClipboardForm::Text, 1'000);
    answer();
    const auto read = block.get();
    ASSERT_TRUE(read);
    EXPECT_TRUE(read->bytes.empty());
    EXPECT_EQ(read->size, 1'001u);
  };
  const xcb_atom_t utf8 = program.atoms.utf8_string;
  open_for(program, {utf8});
  refused([&] { program.answer(utf8, utf8, std::string(1'001, 'x')); });
  refused([&] { program.announce(utf8, 1'001); });
  refused([&] {
    const auto request = program.announce(utf8, 10);  // as it says
    program.piece(request, utf8, std::string(900, 'x'));
    program.piece(request, utf8, std::string(101, 'x'));
  });
  auto block = reading(ClipboardForm::Text, 1'000);
  program.answer(utf8, utf8, std::string(1'000, 'x'));
  const auto read = block.get();
  ASSERT_TRUE(read);
  EXPECT_EQ(read->bytes.size(), 1'000u);
}

TEST_F(X11ClipboardTest, ARequestorThatDiesBetweenPiecesHarmsNobody) {
  const std::string text = large_text(1'048'576);
  put_text(text);
  {
    OtherProgram program;
    program.ask(program.atoms.utf8_string);
    ASSERT_TRUE(program.answered());
    EXPECT_EQ(program.take().type, program.atoms.incr);
    EXPECT_GT(program.next_piece().bytes.size(), 0u);
  }
  EXPECT_TRUE(paste("UTF8_STRING") == text);
}

TEST_F(X11ClipboardTest, SeveralTakeTheirPiecesAtOnceEachAtItsOwnPace) {
  const std::string text = large_text(500'000);
  put_text(text);
  OtherProgram slow[3];
  for (OtherProgram& program : slow) {
    program.ask(program.atoms.utf8_string);
    ASSERT_TRUE(program.answered());
    EXPECT_EQ(program.take().word(0), text.size());
  }
  EXPECT_TRUE(paste("UTF8_STRING") == text);
  // What has been begun goes on, though the clipboard has another content by now.
  put_text("newer");
  Bytes taken[3];
  for (bool more = true; more;) {
    for (std::size_t i = 0; i < 3; ++i) {
      const Bytes piece = slow[i].next_piece().bytes;
      taken[i].insert(taken[i].end(), piece.begin(), piece.end());
      more = !piece.empty();
    }
  }
  for (const Bytes& bytes : taken) EXPECT_TRUE(text_of(bytes) == text);
}

TEST_F(X11ClipboardTest, AskingForTheSameAnewBeginsAnew) {
  const std::string text = large_text(300'000);
  put_text(text);
  OtherProgram program;
  for (int i = 0; i < 2; ++i) {
    program.ask(program.atoms.utf8_string);
    ASSERT_TRUE(program.answered());
    EXPECT_EQ(program.take().type, program.atoms.incr);
  }
  Bytes taken;
  for (Bytes piece = program.next_piece().bytes; !piece.empty(); piece = program.next_piece().bytes)
    taken.insert(taken.end(), piece.begin(), piece.end());
  EXPECT_TRUE(text_of(taken) == text);
}

// ---- What programs say of their content

TEST_F(X11ClipboardTest, APrivateMarkIsTheHintThatSaysSecret) {
  OtherProgram program;
  const auto hint = program.atoms.password_hint;
  const auto mark = [&] {
    return std::async(std::launch::async,
                      [this] { return access_->has(ClipboardForm::PrivateMark); });
  };
  open_for(program, {program.atoms.utf8_string, hint});
  auto secret = mark();
  program.answer(hint, XCB_ATOM_STRING, "secret");
  EXPECT_TRUE(secret.get());
  auto open = mark();
  program.answer(hint, XCB_ATOM_STRING, "public");
  EXPECT_FALSE(open.get());
  auto unknown = mark();
  program.refuse(hint);
  EXPECT_TRUE(unknown.get());
  open_for(program, {program.atoms.utf8_string});
  EXPECT_FALSE(access_->has(ClipboardForm::PrivateMark));
}

TEST_F(X11ClipboardTest, AnOldProgramsLatin1IsRead) {
  OtherProgram program;
  open_for(program, {XCB_ATOM_STRING});
  auto block = reading(ClipboardForm::Text, CLIPBOARD_TEXT_MAX);
  program.answer(XCB_ATOM_STRING, XCB_ATOM_STRING,
                 "gr\xFC\xDF"
                 "e");
  const auto read = block.get();
  ASSERT_TRUE(read);
  EXPECT_EQ(text_of(read->bytes),
            "gr\xC3\xBC\xC3\x9F"
            "e");
}

TEST_F(X11ClipboardTest, AProgramThatKnowsNoTargetsHasText) {
  OtherProgram program;
  program.own();
  ASSERT_TRUE(access_->wait(SOON_MS));
  auto opened = opening();
  program.refuse(program.atoms.targets);
  ASSERT_TRUE(opened.get());
  EXPECT_TRUE(access_->has(ClipboardForm::Text));
  auto block = reading(ClipboardForm::Text, CLIPBOARD_TEXT_MAX);
  program.answer(XCB_ATOM_STRING, XCB_ATOM_STRING, "old");
  EXPECT_EQ(text_of(block.get().value().bytes), "old");
}

// ---- From one desktop to another

TEST(X11ClipboardBridge, TextAndPicturesGoFromOneServerToTheOther) {
  struct Desktop {
    Xvfb server{64, 64};
    Lines lines;
    ClipboardSync sync{make_clipboard_access(), lines.log(), true};
    Xclip xclip{server.display()};
  };
  Desktop host;
  ASSERT_TRUE(host.sync.start());  // by DISPLAY, which names the newest server
  Desktop client;
  ASSERT_TRUE(client.sync.start());
  const BridgeSession session(host.sync, client.sync);

  const std::string text = large_text(1'048'576);
  host.xclip.copy(text);
  ASSERT_TRUE(host.lines.wait_for("1048576 B delivered"));
  ASSERT_TRUE(client.lines.wait_for("received #1"));
  EXPECT_TRUE(client.xclip.changed());
  EXPECT_TRUE(client.xclip.paste() == text);
  const Bytes png = noise_png(700);
  client.xclip.copy(text_of(png), "image/png");
  EXPECT_TRUE(host.xclip.changed());
  EXPECT_TRUE(host.xclip.paste("image/png") == text_of(png));
}

// ---- With the server

TEST_F(X11ClipboardTest, AServerThatDiesAndComesBackIsUsedAgain) {
  put_text("before");
  server_.kill();
  // Whether before or after it is known that the server is gone.
  EXPECT_FALSE(access_->open());
  EXPECT_FALSE(access_->write(text_content("nobody's")));
  server_.restart();
  const std::uint64_t deadline_us = lund_now_us() + SOON_MS * 1'000;
  const auto content = text_content("after");
  bool written = false;
  while (!written && lund_now_us() < deadline_us) {
    access_->wait(50);
    written = access_->write(content).has_value();
  }
  ASSERT_TRUE(written);
  EXPECT_EQ(paste("UTF8_STRING"), "after");
  const auto xclip = copy("theirs", "UTF8_STRING");
  EXPECT_EQ(read_text(), "theirs");
  EXPECT_THAT(lines(), Contains("clipboard: the X server is gone"));
  EXPECT_THAT(lines(), Contains("clipboard: the X server is back"));
}

TEST_F(X11ClipboardTest, InterruptedItWaitsForNothing) {
  OtherProgram program;
  open_for(program, {program.atoms.utf8_string});
  auto block = reading(ClipboardForm::Text, CLIPBOARD_TEXT_MAX);
  program.announce(program.atoms.utf8_string, 1'000'000);
  access_->interrupt();
  EXPECT_FALSE(block.get());
  EXPECT_FALSE(access_->wait(ClipboardAccess::FOREVER_MS));
  EXPECT_FALSE(access_->open());
  EXPECT_FALSE(access_->write(std::make_shared<const ClipboardContent>()));
  EXPECT_THAT(lines(), Not(Contains(SILENT)));
}

TEST_F(X11ClipboardTest, IdleItTakesNoProcessorTime) {
  put_text("text");
  const auto cpu_us = [] {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return used.tv_sec * 1'000'000 + used.tv_nsec / 1'000;
  };
  const auto before = cpu_us();
  access_->wait(1'000);
  EXPECT_LT(cpu_us() - before, 100'000);
}

TEST(X11ClipboardAlone, WithoutAServerThereIsNoClipboard) {
  std::string display;
  {
    const Xvfb gone(64, 64);
    display = gone.display();
  }
  ASSERT_EQ(setenv("DISPLAY", display.c_str(), 1), 0);
  const auto access = make_clipboard_access();
  EXPECT_FALSE(access->start([](const std::string&) {}));
  access->finish();
  unsetenv("DISPLAY");
}

}  // namespace
