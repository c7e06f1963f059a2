// The clipboard between the programs of a desktop and a client, through the host: xclip on the one
// end, the product's own client on the other.
#include <signal.h>

#include <cstdio>
#include <regex>
#include <span>

#include "apps/client/commands.h"
#include "streams/bitmap.h"
#include "streams/clipboard.h"
#include "tests/support/linux/other_program.h"
#include "tests/system/clipboard_support.h"

namespace system_test {
namespace {

constexpr std::size_t TEXT_LIMIT = 1'048'576;

// One, two, three and four bytes a character, and one of two code points.
constexpr char MANY_SCRIPTS[] =
    "plain, gr\u00FC\u00DFe, \u20AC 5, \u65E5\u672C\u8A9E, \u05E9\u05DC\u05D5\u05DD, e\u0301, "
    "\U0001F600\ttab";

// Exactly so many bytes of UTF-8, of which every third character takes more than one.
std::string large_utf8(std::size_t size) {
  const std::string letters = large_text(size);
  std::string text;
  text.reserve(size + 4);
  for (std::size_t i = 0; text.size() < size; ++i)
    text += i % 3 == 0 ? "\u20AC" : std::string(1, letters[i]);
  while (text.size() > size) text.pop_back();
  while ((text.back() & 0x80) != 0) text.pop_back();  // a character that was cut
  text.resize(size, '.');
  return text;
}

std::span<const std::uint8_t> bytes_of(const std::string& text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// ---- Texts

TEST_F(ClipboardTest, TextOfManyScriptsGoesBothWays) {
  prepare();
  join();
  copy_to_client(MANY_SCRIPTS);
  EXPECT_EQ(leave(), 0);
  EXPECT_EQ(kept(), MANY_SCRIPTS);
  const std::string answer = std::string("back: ") + MANY_SCRIPTS;
  give_to_desktop(answer);
  EXPECT_EQ(desk_->paste(), answer);
  EXPECT_EQ(desk_->paste("text/plain;charset=utf-8"), answer);
}

TEST_F(ClipboardTest, LineEndsTravelAsLineFeeds) {
  prepare();
  join();
  copy_to_client("unix\nlone\rend\n");
  desk_->copy("dos\r\nunix\nlone\r\r\nend\r\n");
  EXPECT_TRUE(client_says("received 19 bytes of text"));
  EXPECT_EQ(leave(), 0);
  EXPECT_EQ(kept(), "dos\nunix\nlone\r\nend\n");
  give_to_desktop("from dos\r\nto here\n");
  EXPECT_EQ(desk_->paste(), "from dos\nto here\n");
}

TEST_F(ClipboardTest, AMebibyteOfTextGoesBothWays) {
  const std::string there = large_utf8(TEXT_LIMIT);
  const std::string back = large_utf8(TEXT_LIMIT - 1) + "!";
  prepare();
  join();
  copy_to_client(there);
  EXPECT_EQ(leave(), 0);
  EXPECT_TRUE(kept() == there);
  give_to_desktop(back);
  EXPECT_TRUE(desk_->paste() == back);
}

TEST_F(ClipboardTest, AByteMoreIsRefusedAndTheFormerContentStays) {
  const std::string too_long = large_utf8(TEXT_LIMIT + 1);
  prepare();
  join();
  copy_to_client("former");
  desk_->copy(too_long);
  EXPECT_TRUE(host_says("clipboard: local text of 1048577 B is over the 1 MB limit; not sent"));
  // The limit is that of what travels: two line ends make this one longer than that here.
  const std::string in_lines = "a\r\nb\r\n" + large_text(TEXT_LIMIT - 4);
  desk_->copy(in_lines);
  EXPECT_TRUE(client_says("received 1048576 bytes of text"));
  EXPECT_TRUE(host_says("1048576 B delivered in"));
  EXPECT_EQ(items_sent(), 2U);
  EXPECT_EQ(count_of(receiver_->output(), "clipboard: received #"), 2U);
  EXPECT_EQ(leave(), 0);
  EXPECT_TRUE(kept() == "a\nb\n" + large_text(TEXT_LIMIT - 4));

  desk_->copy("the host's");
  const RunResult refused = give(too_long);
  EXPECT_EQ(refused.status, client_app::EXIT_USAGE) << refused.output;
  EXPECT_NE(refused.output.find("more than the 1 MiB"), std::string::npos) << refused.output;
  EXPECT_EQ(desk_->paste(), "the host's");
}

// ---- Pictures

TEST_F(ClipboardTest, APngGoesBothWaysByteForByte) {
  const std::string png = text_of(noise_png(500));  // a megabyte, with alpha
  prepare();
  join();
  copy_to_client(png, PNG_TARGET);
  EXPECT_EQ(leave(), 0);
  EXPECT_TRUE(kept() == png);
  const Image picture = noise_picture(400, true);
  const std::string back = text_of(png_of(picture));
  give_to_desktop(back);
  EXPECT_TRUE(desk_->paste(PNG_TARGET) == back);
  // A program that knows no PNG gets the same pixels.
  const std::string bmp = desk_->paste("image/bmp");
  Image pasted;
  ASSERT_TRUE(image_from_dib(dib_from_bmp_file(bytes_of(bmp)), &pasted));
  EXPECT_EQ(pasted.width, 400U);
  EXPECT_TRUE(pasted.pixels == picture.pixels);
}

TEST_F(ClipboardTest, ABitmapArrivesAsAPngOfTheSamePixels) {
  const Image picture = noise_picture(300, true);
  prepare();
  join();
  desk_->copy(text_of(bmp_file_from_dib(dib_over_white(picture))), "image/bmp");
  EXPECT_TRUE(client_says("bytes of PNG"));
  EXPECT_EQ(leave(), 0);
  const std::string png = kept();
  Image arrived;
  ASSERT_TRUE(decode_png(bytes_of(png), &arrived));
  EXPECT_EQ(arrived.width, 300U);
  EXPECT_TRUE(arrived.pixels == picture.pixels);
}

TEST_F(ClipboardTest, StandardStreamsCarryThemToo) {
  const std::string png = text_of(noise_png(100));
  prepare();
  write_file(directory_ / "given", png);
  const std::string connect = program("lunderhaze-client") + " --store " +
                              (directory_ / "client").string() + " connect --host " +
                              host_address();
  const auto shell = [](const std::string& line) {
    return std::vector<std::string>{"sh", "-c", line};
  };
  const RunResult given = run_program(
      shell(connect + " --seconds 0.1 --clipboard-set - < " + (directory_ / "given").string()),
      environment_);
  EXPECT_EQ(given.status, 0) << given.output;
  EXPECT_TRUE(desk_->changed());
  EXPECT_TRUE(desk_->paste(PNG_TARGET) == png);
  EXPECT_TRUE(host_says(" ended ("));

  const std::string back = text_of(noise_png(101));
  receiver_ =
      std::make_unique<ChildProcess>(shell("exec " + connect + " --seconds 0 --clipboard-get - > " +
                                           (directory_ / "taken").string()),
                                     environment_);
  EXPECT_TRUE(host_says(" started: "));
  copy_to_client(back, PNG_TARGET);
  EXPECT_EQ(leave(), 0);
  EXPECT_TRUE(file_content(directory_ / "taken") == back);
}

// ---- Once

TEST_F(ClipboardTest, TheSameCopiedAgainIsSentOnceAlsoAcrossAReconnect) {
  prepare();
  join();
  copy_to_client("same");
  EXPECT_EQ(leave(), 0);
  join();
  desk_->copy("same");
  EXPECT_TRUE(desk_->given());  // the host has read it
  copy_to_client("other");
  desk_->copy("other");
  EXPECT_TRUE(desk_->given());
  copy_to_client("the third");
  EXPECT_EQ(items_sent(), 3U);
  EXPECT_EQ(count_of(receiver_->output(), "clipboard: received #"), 2U);
  EXPECT_EQ(leave(), 0);
  // And the other way, where a person may say it again and again.
  give_to_desktop("hers");
  const RunResult again = give("hers");
  EXPECT_NE(again.output.find("clipboard: delivered"), std::string::npos) << again.output;
  EXPECT_TRUE(host_says(" is already on the clipboard"));
}

TEST_F(ClipboardTest, WhatTheClientGaveDoesNotComeBack) {
  prepare();
  write_file(directory_ / "hers", "hers");
  join({"--clipboard-set", (directory_ / "hers").string()});
  EXPECT_TRUE(client_says("clipboard: delivered"));
  EXPECT_TRUE(desk_->changed());
  desk_->copy("hers");  // as a clipboard manager writes anew what it has seen
  EXPECT_TRUE(desk_->given());
  copy_to_client("the host's own");
  EXPECT_EQ(items_sent(), 1U);
  EXPECT_EQ(count_of(receiver_->output(), "clipboard: received #"), 1U);
  EXPECT_EQ(leave(), 0);
  EXPECT_EQ(kept(), "the host's own");
}

// ---- What isn't shared

TEST_F(ClipboardTest, SwitchedOffNothingGoesOutOrInAndTheClientIsToldDelivered) {
  prepare();
  join();
  const RunResult off = run_host({"clipboard", "off"});
  EXPECT_EQ(off.output, "The clipboard is not shared with clients\n");
  EXPECT_TRUE(host_says("clipboard sync off"));
  desk_->copy("mine alone");
  EXPECT_NE(leave(), 0) << "nothing came";
  const RunResult given = give("hers");
  EXPECT_EQ(given.status, 0) << given.output;
  EXPECT_NE(given.output.find("clipboard: delivered"), std::string::npos) << given.output;
  EXPECT_TRUE(host_says("clipboard: #1 not applied (sync is off)"));
  EXPECT_EQ(desk_->paste(), "mine alone");

  const RunResult on = run_host({"clipboard", "on"});
  EXPECT_EQ(on.output, "The clipboard is shared with clients\n");
  join();
  copy_to_client("for all");
  EXPECT_EQ(leave(), 0);
  EXPECT_EQ(kept(), "for all");
  EXPECT_EQ(items_sent(), 1U);
  give_to_desktop("hers again");
  EXPECT_EQ(desk_->paste(), "hers again");
}

TEST_F(ClipboardTest, ItStaysOffWhenTheHostStartsAnew) {
  prepare();
  EXPECT_EQ(run_host({"clipboard", "off"}).status, 0);
  EXPECT_EQ(stop_host(), 0);
  serve();
  EXPECT_EQ(run_host({"clipboard"}).output, "The clipboard is not shared with clients\n");
  desk_->copy("mine");
  EXPECT_EQ(give("hers").status, 0);
  EXPECT_TRUE(host_says("not applied (sync is off)"));
  EXPECT_EQ(desk_->paste(), "mine");
}

TEST_F(ClipboardTest, ASecretIsNotSent) {
  prepare();
  join();
  OtherProgram keeper;  // of passwords
  const auto& atoms = keeper.atoms;
  keeper.own();
  keeper.answer_targets({atoms.utf8_string, atoms.password_hint});
  keeper.answer(atoms.password_hint, XCB_ATOM_STRING, "secret");
  EXPECT_TRUE(
      host_says("clipboard: local change is marked private (x-kde-passwordManagerHint); not sent"));
  EXPECT_TRUE(desk_->changed());
  copy_to_client("no secret");
  EXPECT_EQ(items_sent(), 1U);
}

// ---- Beside the video, and over bad links

TEST_F(ClipboardTest, APictureOver16MBIsScaledToFitAndTheVideoFlowsMeanwhile) {
  const Image picture = noise_picture(2'100);  // 17.6 MB, and as much as a PNG
  const std::string png = text_of(png_of(picture));
  ASSERT_GT(png.size(), LUND_CLIP_IMAGE_MAX);
  prepare(1280, 720);
  const ChildProcess screen({program("lunderhaze-testscreen")}, environment_);
  join({"--out", out().string()});
  const auto begin = std::chrono::steady_clock::now();
  desk_->copy(png, PNG_TARGET);
  EXPECT_TRUE(client_says("bytes of PNG", seconds(40)));
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - begin;
  const std::string during = receiver_->output();
  EXPECT_EQ(leave(), 0);
  std::smatch size;
  const std::regex scaled(
      R"(image 2100x2100 downscaled to (\d+)x(\d+) \((\d+) B PNG\) to fit 16 MB)");
  ASSERT_TRUE(std::regex_search(host_->output(), size, scaled)) << host_->output();
  std::printf("a PNG of %zu bytes was %s x %s pixels and %s bytes at the client after %.1f s\n",
              png.size(), size[1].str().c_str(), size[2].str().c_str(), size[3].str().c_str(),
              took.count());
  const std::string arrived = kept();
  EXPECT_EQ(arrived.size(), std::stoul(size[3]));
  EXPECT_LE(arrived.size(), LUND_CLIP_IMAGE_MAX);
  Image fitted;
  Image expected;
  ASSERT_TRUE(decode_png(bytes_of(arrived), &fitted));
  ASSERT_TRUE(scale_image(picture, fitted.width, fitted.height, &expected));
  EXPECT_EQ(std::to_string(fitted.width), size[1]);
  EXPECT_TRUE(fitted.pixels == expected.pixels);
  // No second without a picture, and none of them lost. The way alone takes 2.7 s by its pace.
  EXPECT_GE(count_of(during, " fps"), 2U) << during;
  EXPECT_EQ(during.find(" 0.0 fps"), std::string::npos) << during;
  EXPECT_EQ(report()["frames_lost"], 0) << report().dump();
  EXPECT_EQ(report()["frames_undecodable"], 0) << report().dump();
}

TEST_F(ClipboardTest, AMebibyteOfTextArrivesThoughATenthIsLost) {
  const std::string text = large_utf8(TEXT_LIMIT);
  prepare();
  join({"--drop", "10", "--seed", "5"});
  copy_to_client(text);
  EXPECT_TRUE(host_says(" passes)"));  // of one pass the line speaks otherwise
  leave();
  EXPECT_TRUE(kept() == text);
  const std::string back = large_text(TEXT_LIMIT);
  const RunResult given = give(back, {"--drop", "10", "--seed", "6"});
  EXPECT_EQ(given.status, 0) << given.output;
  EXPECT_TRUE(desk_->changed());
  EXPECT_TRUE(desk_->paste() == back);
}

// ---- Sudden ends

TEST_F(ClipboardTest, AClientKilledWhileItTakesLeavesTheNextOneAWorkingClipboard) {
  const std::string png = text_of(noise_png(1'700));  // 11.6 MB: over two seconds on the way
  prepare();
  join();
  desk_->copy(png, PNG_TARGET);
  ASSERT_TRUE(host_says("clipboard: sending #1 PNG"));
  receiver_->signal(SIGKILL);
  receiver_->wait(seconds(5));
  join();
  EXPECT_NE(host_->output().find("clipboard: #1 dropped (session "), std::string::npos);
  copy_to_client("next");
  EXPECT_EQ(leave(), 0);
  EXPECT_EQ(kept(), "next");
}

TEST_F(ClipboardTest, AClientKilledWhileItGivesLeavesTheNextOneAWorkingClipboard) {
  prepare();
  write_file(directory_ / "picture", text_of(noise_png(1'700)));
  join({"--clipboard-set", (directory_ / "picture").string()});
  ASSERT_TRUE(client_says("clipboard: sending #1 PNG"));
  receiver_->signal(SIGKILL);
  receiver_->wait(seconds(5));
  give_to_desktop("next");
  EXPECT_EQ(desk_->paste(), "next");
  EXPECT_EQ(host_->output().find("clipboard: received #1 PNG"), std::string::npos);
}

TEST_F(ClipboardTest, AnXServerThatIsKilledAndComesBackIsSharedAgain) {
  prepare();
  join();
  copy_to_client("before");
  desktop_->kill();
  EXPECT_TRUE(host_says("clipboard: the X server is gone"));
  desktop_->restart();
  EXPECT_TRUE(host_says("clipboard: the X server is back"));
  desk_ = std::make_unique<Xclip>(desktop_->display());
  copy_to_client("behind");
  EXPECT_EQ(leave(), 0);
  EXPECT_EQ(kept(), "behind");
  give_to_desktop("hers");
  EXPECT_EQ(desk_->paste(), "hers");
}

TEST_F(ClipboardTest, AProgramThatHangsOrDiesWhileItServesHoldsNobodyUp) {
  prepare();
  join();
  // The host waits until the program can no longer answer.
  const auto copy_and = [&](int number, const std::string& content) {
    host_->signal(SIGSTOP);
    desk_->copy(content);
    desk_->signal(number);
    host_->signal(SIGCONT);
  };
  copy_and(SIGSTOP, "by one that hangs");
  EXPECT_TRUE(host_says("clipboard: the program that owns the selection doesn't answer"));
  desk_->signal(SIGKILL);
  copy_to_client("next");
  copy_and(SIGKILL, "by one that dies");
  copy_to_client("after that");
  {
    OtherProgram dying;  // between two pieces
    dying.own();
    dying.answer_targets({dying.atoms.utf8_string});
    const auto request = dying.announce(dying.atoms.utf8_string, 1'000'000);
    dying.piece(request, dying.atoms.utf8_string, "the first");
  }
  EXPECT_TRUE(desk_->changed());
  copy_to_client("the last");
  EXPECT_EQ(leave(), 0);
  EXPECT_EQ(kept(), "the last");
  EXPECT_EQ(items_sent(), 3U);
}

}  // namespace
}  // namespace system_test
