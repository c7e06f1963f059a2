#include "apps/client/input_script.h"

#include <gtest/gtest.h>

#include <cmath>

#include "connection/clock.h"
#include "tests/support/virtual_time.h"

namespace {

constexpr std::uint64_t MS = 1'000;
using Strokes = std::vector<KeyStroke>;

// A host that acknowledges everything at once, and shows the pointer where it was put.
class InputScriptTest : public testing::Test {
 protected:
  InputScriptTest() {
    virtual_time::reset();
    sender_.begin(1176);
    view_.width = 800;
    view_.height = 600;
  }
  void run(InputScript& script, int steps = 1'000) {
    for (int i = 0; i < steps && !script.done() && script.failure().empty(); ++i) {
      script.step(lund_now_us(), view_, sender_);
      sender_.tick();
      answer();
      virtual_time::advance_us(10 * MS);
    }
  }
  void answer() {
    for (const auto& packet : std::exchange(sent_, {})) take(packet);
  }
  void take(const std::vector<std::uint8_t>& packet) {
    lund_mouse_abs mouse;
    if (lund_decode_mouse_abs(packet.data(), packet.size(), &mouse) == 0) {
      ++moves_;
      if (shows_pointer_) {
        view_.pointer.x = mouse.x;
        view_.pointer.y = mouse.y;
        view_.pointer_known = true;
      }
      return;
    }
    lund_input_event events[LUND_INPUT_MAX];
    std::uint32_t first = 0;
    int count = 0;
    ASSERT_EQ(lund_decode_input(packet.data(), packet.size(), &first, events, &count), 0);
    for (int i = 0; i < count; ++i)
      if (first + static_cast<std::uint32_t>(i) > last_) {
        note(events[i]);
        last_ = first + static_cast<std::uint32_t>(i);
      }
    if (!acknowledges_) return;
    std::uint8_t ack[12];
    const lund_packet_header header{LUND_PKT_INPUT_ACK, 0, 0};
    sender_.acknowledged(ack, lund_encode_u32_packet(ack, sizeof ack, &header, last_));
  }
  void note(const lund_input_event& event) {
    char text[64];
    std::snprintf(text, sizeof text, "%s %d %s", event.kind == LUND_INPUT_KEY ? "key" : "button",
                  event.code, event.down ? "down" : "up");
    played_.emplace_back(text);
  }

  std::vector<std::vector<std::uint8_t>> sent_;
  InputSender sender_{
      [this](const std::uint8_t* p, std::size_t n) { sent_.emplace_back(p, p + n); }};
  InputScript::View view_;
  bool shows_pointer_ = true;
  bool acknowledges_ = true;
  std::uint32_t last_ = 0;
  int moves_ = 0;
  std::vector<std::string> played_;
};

}  // namespace

TEST_F(InputScriptTest, ShiftIsHeldAroundTheKeyThatNeedsIt) {
  InputScript script({Strokes{{4, true}, {5, false}}});
  run(script);
  EXPECT_TRUE(script.done());
  EXPECT_EQ(played_, (std::vector<std::string>{"key 225 down", "key 4 down", "key 4 up",
                                               "key 225 up", "key 5 down", "key 5 up"}));
}

TEST_F(InputScriptTest, ActionsAreDoneInTheOrderGiven) {
  InputScript script({Strokes{{4, false}}, Click{10, 20}, Strokes{{5, false}}});
  run(script);
  EXPECT_TRUE(script.done());
  EXPECT_EQ(played_, (std::vector<std::string>{"key 4 down", "key 4 up", "button 1 down",
                                               "button 1 up", "key 5 down", "key 5 up"}));
  EXPECT_EQ(view_.pointer.x, scale_position(10, 800));
}

TEST_F(InputScriptTest, ItIsNotDoneBeforeTheHostHasAcknowledged) {
  acknowledges_ = false;
  InputScript script({Strokes{{4, false}}});
  run(script, 200);
  EXPECT_FALSE(script.done());
  EXPECT_EQ(played_.size(), 2u);
  acknowledges_ = true;
  run(script, 200);
  EXPECT_TRUE(script.done());
  EXPECT_EQ(played_.size(), 2u);
}

TEST_F(InputScriptTest, ALongTextIsTypedWhole) {
  InputScript script({Strokes(3'000, KeyStroke{4, true})});
  run(script, 100'000);
  EXPECT_TRUE(script.done());
  EXPECT_EQ(played_.size(), 12'000u);
  EXPECT_EQ(sender_.statistics().refused, 0u);
}

TEST_F(InputScriptTest, AClickIsNotMadeWhereThePointerIsNotShown) {
  shows_pointer_ = false;
  view_.pointer_known = true;  // elsewhere
  InputScript script({Click{400, 300}});
  run(script);
  EXPECT_EQ(script.failure(), "the host's pointer did not come to 400,300");
  EXPECT_TRUE(played_.empty());
  EXPECT_GT(moves_, 10);
}

TEST_F(InputScriptTest, AHostWithoutAPointerIsTakenAtItsWord) {
  shows_pointer_ = false;
  InputScript script({Click{400, 300}});
  run(script);
  EXPECT_TRUE(script.done());
  EXPECT_EQ(played_.size(), 2u);
}

TEST_F(InputScriptTest, APixelOutsideThePictureIsRefused) {
  InputScript script({Click{800, 0}});
  run(script);
  EXPECT_EQ(script.failure(), "800,0 is outside the picture of 800x600");
  EXPECT_EQ(moves_, 0);
}

TEST_F(InputScriptTest, AStreamThatBreaksOffEndsThePlan) {
  InputScript script({Strokes{{4, false}}});
  script.interrupt();
  run(script);
  EXPECT_FALSE(script.failure().empty());
  EXPECT_TRUE(played_.empty());
  InputScript finished({});
  finished.interrupt();
  EXPECT_TRUE(finished.failure().empty());
}

TEST(ClickPlace, IsTwoNumbers) {
  ASSERT_TRUE(parse_click("12,0"));
  EXPECT_EQ(parse_click("12,0")->x, 12);
  for (const char* text : {"", "1", "1,", ",1", "1,2,3", "-1,2", "1 ,2", "1,2 ", "a,b", "70000,1"})
    EXPECT_FALSE(parse_click(text)) << text;
}

TEST(ClickPlace, TheEdgesOfThePictureAreTheEndsOfTheScale) {
  EXPECT_EQ(scale_position(0, 1920), 0);
  EXPECT_EQ(scale_position(1919, 1920), 65'535);
  EXPECT_EQ(scale_position(5'000, 1920), 65'535);
  EXPECT_EQ(scale_position(0, 1), 0);
  // The host's way back, onto a screen of the same size, gives the pixel again.
  for (int x = 0; x < 1920; ++x)
    EXPECT_EQ(std::lround(scale_position(x, 1920) / 65'535.0 * 1919), x);
}
