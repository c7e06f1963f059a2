// A bridge that has carried a thousand items holds nothing that one which has carried a hundred
// doesn't: neither of what Windows counts, nor memory.
#include <gtest/gtest.h>

#include <cstring>

#include "streams/clipboard_bridge.h"
#include "tests/streams/dib_builder.h"
#include "tests/streams/realtime/bridge_ends.h"
#include "tests/streams/realtime/desktop_clipboard.h"
#include "tests/support/clipboard_items.h"
#include "tests/support/windows/resource_count.h"
// After all that means its own by these names.
#include "control/windows/handles.h"

namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr int ITEMS = 1'000;
constexpr int WARM_UP = 100;  // whatever is made once has been made
constexpr std::int32_t SIDE = 128;
// What a leak of one picture in ten would be far above, and a heap's own ways stay below.
constexpr std::uint64_t MEMORY_SLACK = 4 << 20;
// A lock has an event of its own from the first time on that two threads meet at it.
constexpr std::uint32_t HANDLE_SLACK = 8;
static_assert(MEMORY_SLACK < std::uint64_t{ITEMS - WARM_UP} / 10 * SIDE * SIDE * 4);

// A program of this process: a window owns what is put there.
class Program {
 public:
  void put(UINT format, const Bytes& bytes) {
    open();
    EmptyClipboard();
    GlobalBlock block(GlobalAlloc(GMEM_MOVEABLE, bytes.size()));
    std::copy(bytes.begin(), bytes.end(), static_cast<std::uint8_t*>(GlobalLock(block.get())));
    GlobalUnlock(block.get());
    if (SetClipboardData(format, block.get()) != nullptr) block.release();
    CloseClipboard();
  }
  bool has(UINT format, const Bytes& bytes) {
    open();
    const HANDLE block = GetClipboardData(format);
    const void* there = block != nullptr ? GlobalLock(block) : nullptr;
    const bool same = there != nullptr && GlobalSize(block) >= bytes.size() &&
                      std::memcmp(there, bytes.data(), bytes.size()) == 0;
    if (there != nullptr) GlobalUnlock(block);
    CloseClipboard();
    return same;
  }

 private:
  void open() {
    while (!OpenClipboard(window_.get())) Sleep(0);
  }

  const WindowHandle window_{CreateWindowExW(0, L"STATIC", nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE,
                                             nullptr, nullptr, nullptr)};
};

// Pixels that the system converts, other ones for each item.
Bytes bitmap(int item) {
  DibBuilder dib{.width = SIDE, .height = SIDE, .bits = 16, .rows = Bytes(SIDE * SIDE * 2)};
  for (std::size_t i = 0; i < dib.rows.size(); ++i)
    dib.rows[i] = static_cast<std::uint8_t>(i * i * 31 + static_cast<std::size_t>(item) * 7);
  return dib.build();
}

Bytes text_block(int item) {
  const std::wstring text = std::to_wstring(item);
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.c_str());
  return {bytes, bytes + (text.size() + 1) * sizeof(wchar_t)};
}

class ClipboardLeak : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(host_.start());
    ASSERT_TRUE(client_.start());
    session_.emplace(host_, client_);
  }

  void carry(int item) {
    const bool picture = item % 2 == 0;
    if (item % 4 < 2) {
      picture ? send_picture(item) : send_text(item);
    } else {
      picture ? take_picture(item) : take_text(item);
    }
  }
  void send_picture(int item) {
    forget();
    program_.put(CF_DIB, bitmap(item));
    ASSERT_FALSE(desktop_.png_after_waiting().empty()) << item;
  }
  void send_text(int item) {
    program_.put(CF_UNICODETEXT, text_block(item));
    ASSERT_EQ(desktop_.text_after_waiting_for(std::to_string(item)), std::to_string(item));
  }
  void take_picture(int item) {
    Image image{SIDE, SIDE, Bytes(SIDE * SIDE * 4)};
    for (std::size_t i = 0; i < image.pixels.size(); ++i)
      image.pixels[i] = static_cast<std::uint8_t>(i * i * 31 + static_cast<std::size_t>(item));
    const Bytes png = png_of(image);
    desktop_.copy(ClipboardForm::Png, png);
    wait_for(RegisterClipboardFormatW(L"PNG"), png, item);
  }
  void take_text(int item) {
    desktop_.copy_text(std::to_string(item));
    wait_for(CF_UNICODETEXT, text_block(item), item);
  }
  void wait_for(UINT format, const Bytes& bytes, int item) {
    const ULONGLONG until = GetTickCount64() + 20'000;
    while (!program_.has(format, bytes) && GetTickCount64() < until) Sleep(1);
    ASSERT_TRUE(program_.has(format, bytes)) << item;
  }
  void forget() {
    const std::lock_guard lock(desktop_.mutex);
    desktop_.written.reset();
  }

  Program program_;
  Desktop desktop_;
  ClipboardSync host_{make_clipboard_access(), [](const std::string&) {}, true};
  ClipboardSync client_{std::make_unique<DesktopClipboard>(desktop_), [](const std::string&) {},
                        true};
  std::optional<BridgeSession> session_;
};

TEST(ResourceCount, SeesWhatItIsToSee) {
  const ResourceCount before = count_resources();
  {
    const MemoryContext contexts[] = {MemoryContext(CreateCompatibleDC(nullptr)),
                                      MemoryContext(CreateCompatibleDC(nullptr))};
    const WindowHandle window(CreateWindowExW(0, L"STATIC", nullptr, 0, 0, 0, 0, 0, HWND_MESSAGE,
                                              nullptr, nullptr, nullptr));
    const Handle event(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    const Bytes memory(2 * MEMORY_SLACK, 1);
    const ResourceCount with = count_resources();
    EXPECT_GE(with.gdi_objects, before.gdi_objects + 2);
    EXPECT_EQ(with.windows, before.windows + 1);
    EXPECT_GE(with.handles, before.handles + 1);
    EXPECT_GE(with.memory_bytes, before.memory_bytes + MEMORY_SLACK);
  }
}

TEST_F(ClipboardLeak, AThousandItemsLeaveNothingBehind) {
  int item = 0;
  for (; item < WARM_UP && !HasFatalFailure(); ++item) carry(item);
  const ResourceCount before = count_resources();
  for (; item < ITEMS && !HasFatalFailure(); ++item) carry(item);
  const ResourceCount after = count_resources();
  EXPECT_LE(after.gdi_objects, before.gdi_objects);
  EXPECT_LE(after.windows, before.windows);
  EXPECT_LE(after.handles, before.handles + HANDLE_SLACK);
  EXPECT_LE(after.memory_bytes, before.memory_bytes + MEMORY_SLACK);
  std::printf(
      "%d items: %u GDI objects, %u windows, %u handles, %+lld KiB\n", ITEMS, after.gdi_objects,
      after.windows, after.handles,
      (static_cast<long long>(after.memory_bytes) - static_cast<long long>(before.memory_bytes)) /
          1'024);
}

TEST(ClipboardListeners, ThoseThatComeAndGoLeaveNothingBehind) {
  const auto come_and_go = [](int times) {
    for (int i = 0; i < times; ++i) {
      ClipboardSync sync{make_clipboard_access(), [](const std::string&) {}, true};
      ASSERT_TRUE(sync.start());
    }
  };
  come_and_go(5);
  const ResourceCount before = count_resources();
  come_and_go(50);
  const ResourceCount after = count_resources();
  EXPECT_LE(after.gdi_objects, before.gdi_objects);
  EXPECT_LE(after.windows, before.windows);
  EXPECT_LE(after.handles, before.handles + HANDLE_SLACK);
}

}  // namespace
