// Copying at one desktop and pasting at the other, with the window between them.
#include <fstream>

#include "tests/system/view_support.h"

namespace system_test {
namespace {

class ViewClipboardTest : public ViewTest {
 protected:
  // A program that holds what it copied until it is replaced.
  std::unique_ptr<ChildProcess> copy(const std::string& display, const std::string& target,
                                     const std::string& bytes) {
    const std::filesystem::path file = directory_ / ("copied" + std::to_string(copies_++));
    std::ofstream(file, std::ios::binary) << bytes;
    return std::make_unique<ChildProcess>(
        std::vector<std::string>{"xclip", "-quiet", "-selection", "clipboard", "-t", target, "-i",
                                 file.string()},
        Environment{{"DISPLAY", display}});
  }
  std::string paste(const std::string& display, const std::string& target) {
    const std::filesystem::path file = directory_ / "pasted";
    run_program({"sh", "-c",
                 "xclip -selection clipboard -o -t " + target + " > " + file.string() +
                     " 2>/dev/null || true"},
                {{"DISPLAY", display}});
    std::ifstream pasted(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(pasted), {}};
  }
  bool pastes(const std::string& display, const std::string& target, const std::string& bytes) {
    return comes_true([&] { return paste(display, target) == bytes; }, seconds(30));
  }
  int copies_ = 0;
};

TEST_F(ViewClipboardTest, TextTravelsBothWays) {
  sit_down();
  view();
  const auto here =
      copy(seat_->display(), "UTF8_STRING", "from the person: \xC3\xA4\xE2\x82\xAC\nsecond line");
  EXPECT_TRUE(pastes(desktop_->display(), "UTF8_STRING",
                     "from the person: \xC3\xA4\xE2\x82\xAC\nsecond line"));
  const auto there = copy(desktop_->display(), "UTF8_STRING", "from the host");
  EXPECT_TRUE(pastes(seat_->display(), "UTF8_STRING", "from the host"));
}

TEST_F(ViewClipboardTest, APictureTravelsBothWays) {
  sit_down();
  view();
  RgbPicture picture{120, 80, std::vector<std::uint8_t>(120 * 80 * 3)};
  for (std::size_t i = 0; i < picture.pixels.size(); ++i)
    picture.pixels[i] = static_cast<std::uint8_t>(i * 7 + i / 360);
  const std::filesystem::path file = directory_ / "picture.png";
  ASSERT_TRUE(write_png(file, picture));
  std::ifstream stream(file, std::ios::binary);
  const std::string bytes{std::istreambuf_iterator<char>(stream), {}};
  const auto same_picture_at = [&](const std::string& display) {
    return comes_true(
        [&] {
          const std::string pasted = paste(display, "image/png");
          if (pasted.empty()) return false;
          const std::filesystem::path seen = directory_ / "seen.png";
          std::ofstream(seen, std::ios::binary) << pasted;
          return read_png(seen).pixels == picture.pixels;
        },
        seconds(30));
  };
  const auto here = copy(seat_->display(), "image/png", bytes);
  EXPECT_TRUE(same_picture_at(desktop_->display()));
  const auto text = copy(desktop_->display(), "UTF8_STRING", "in between");
  ASSERT_TRUE(pastes(seat_->display(), "UTF8_STRING", "in between"));
  const auto there = copy(desktop_->display(), "image/png", bytes);
  EXPECT_TRUE(same_picture_at(seat_->display()));
}

TEST_F(ViewClipboardTest, SwitchedOffAtTheWindowNothingTravels) {
  sit_down();
  view();
  const auto first = copy(seat_->display(), "UTF8_STRING", "shared");
  ASSERT_TRUE(pastes(desktop_->display(), "UTF8_STRING", "shared"));
  user_->command('c');
  const auto secret = copy(seat_->display(), "UTF8_STRING", "a secret");
  const auto there = copy(desktop_->display(), "UTF8_STRING", "the host's own");
  // Shared, either takes some ten milliseconds.
  EXPECT_FALSE(comes_true(
      [&] {
        return paste(desktop_->display(), "UTF8_STRING") == "a secret" ||
               paste(seat_->display(), "UTF8_STRING") == "the host's own";
      },
      std::chrono::seconds(1)));
  user_->command('c');
  const auto last = copy(seat_->display(), "UTF8_STRING", "shared again");
  EXPECT_TRUE(pastes(desktop_->display(), "UTF8_STRING", "shared again"));
}

}  // namespace
}  // namespace system_test
