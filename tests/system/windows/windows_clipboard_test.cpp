// The clipboard between Windows programs and a client: a program of the desk's that copies and
// pastes on the one end, the product's own client on the other.
#include <signal.h>

#include "tests/support/clipboard_items.h"
#include "tests/support/temp_directory.h"
#include "tests/system/windows/windows_host_support.h"

namespace system_test {
namespace {

constexpr char UNICODE_TEXT[] = "13";  // CF_UNICODETEXT
constexpr char PNG[] = "PNG";
constexpr std::size_t TEXT_LIMIT = 1'048'576;

// CF_UNICODETEXT's form of what has no character beyond U+FFFF: little endian, a zero at its end.
std::string utf16(const std::u16string& text) {
  std::string bytes;
  for (const char16_t unit : text + u'\0') {
    bytes += static_cast<char>(unit & 0xFF);
    bytes += static_cast<char>(unit >> 8);
  }
  return bytes;
}
std::string utf16(const std::string& ascii) {
  return utf16(std::u16string(ascii.begin(), ascii.end()));
}

class WindowsClipboardTest : public WindowsHostTest {
 protected:
  void SetUp() override {
    WindowsHostTest::SetUp();
    if (!IsSkipped() && !HasFatalFailure()) serve({"--console"});
  }

  // A client that stays and keeps what comes; returns once the host's clipboard knows of it.
  void join() {
    launch_receiver({"--clipboard-get", (directory_ / "kept").string()});
    EXPECT_TRUE(host_->wait_for_output(" started: ", seconds(20))) << host_->output();
  }
  std::string leave() {
    receiver_->signal(SIGINT);
    EXPECT_EQ(receiver_->wait(seconds(20)), 0) << receiver_->output();
    return file_content(directory_ / "kept");
  }

  // In Windows's forms; the files' names are this computer's.
  void copy(const std::string& format, const std::string& bytes) {
    write_file(directory_ / "copied", bytes);
    const RunResult copied = desk().run(
        "clipboard_program.exe", {"copy", format, WineDesk::windows_path(directory_ / "copied")});
    EXPECT_EQ(copied.status, 0) << copied.output;
  }
  std::string paste(const std::string& format) {
    const RunResult pasted = desk().run(
        "clipboard_program.exe", {"paste", format, WineDesk::windows_path(directory_ / "pasted")});
    EXPECT_EQ(pasted.status, 0) << pasted.output;
    return file_content(directory_ / "pasted");
  }

  // Copies there, and waits until the client has it whole.
  void copy_to_client(const std::string& format, const std::string& bytes,
                      const std::string& what) {
    copy(format, bytes);
    EXPECT_TRUE(receiver_->wait_for_output("bytes of " + what, seconds(30)));
    EXPECT_TRUE(host_->wait_for_output(" delivered in ", seconds(30)));
  }
  void give(const std::string& content) {
    write_file(directory_ / "given", content);
    const RunResult given = client({"connect", "--host", host_address(), "--seconds", "0.1",
                                    "--clipboard-set", (directory_ / "given").string()});
    EXPECT_EQ(given.status, 0) << given.output;
    EXPECT_NE(given.output.find("clipboard: delivered"), std::string::npos) << given.output;
  }
};

TEST_F(WindowsClipboardTest, TextOfManyScriptsGoesBothWays) {
  join();
  copy_to_client(UNICODE_TEXT, utf16(u"gr\u00FC\u00DFe, \u20AC 5, \u65E5\u672C\u8A9E\r\nline 2"),
                 "text");
  EXPECT_EQ(leave(), "gr\u00FC\u00DFe, \u20AC 5, \u65E5\u672C\u8A9E\nline 2");
  give("zur\u00FCck: \u65E5\u672C\u8A9E\nline 2");
  EXPECT_EQ(paste(UNICODE_TEXT), utf16(u"zur\u00FCck: \u65E5\u672C\u8A9E\r\nline 2"));
}

TEST_F(WindowsClipboardTest, AMebibyteOfTextGoesBothWays) {
  const std::string there = large_text(TEXT_LIMIT);
  const std::string back = large_text(TEXT_LIMIT - 1) + "!";
  join();
  copy_to_client(UNICODE_TEXT, utf16(there), "text");
  EXPECT_TRUE(leave() == there);
  give(back);
  EXPECT_TRUE(paste(UNICODE_TEXT) == utf16(back));
}

TEST_F(WindowsClipboardTest, APngGoesBothWaysByteForByte) {
  const auto png = [](std::uint32_t side) {
    const std::vector<std::uint8_t> bytes = noise_png(side);
    return std::string(bytes.begin(), bytes.end());
  };
  join();
  copy_to_client(PNG, png(500), "PNG");  // a megabyte
  EXPECT_TRUE(leave() == png(500));
  give(png(400));
  EXPECT_TRUE(paste(PNG) == png(400));
}

}  // namespace
}  // namespace system_test
