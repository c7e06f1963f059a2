// The clipboard of this window station's session. The listener thread has the window that hears of
// changes, and makes every call; other threads post to the window.
#include <algorithm>
#include <climits>
#include <optional>
#include <utility>

#include "control/windows/wide_text.h"
#include "streams/bitmap.h"
#include "streams/clipboard_access.h"
#include "streams/windows/listener_window.h"
#include "streams/windows/wic.h"

namespace {

constexpr ClipboardTraits TRAITS{true, "ExcludeClipboardContentFromMonitorProcessing", "WIC"};
// Of more UTF-16 than this not even the size as UTF-8 can be asked, which is an int.
constexpr std::uint64_t SIZED_UNITS_MAX = INT_MAX / 3;

// A block of the clipboard, which keeps it, while it is open.
class LockedBlock {
 public:
  explicit LockedBlock(HANDLE block) : block_(block), bytes_(block ? GlobalLock(block) : nullptr) {}
  ~LockedBlock() {
    if (bytes_ != nullptr) GlobalUnlock(block_);
  }
  LockedBlock(const LockedBlock&) = delete;
  LockedBlock& operator=(const LockedBlock&) = delete;

  explicit operator bool() const { return bytes_ != nullptr; }
  std::uint64_t size() const { return GlobalSize(block_); }
  const std::uint8_t* bytes() const { return static_cast<const std::uint8_t*>(bytes_); }
  // Up to the first NUL, or the block's end.
  std::wstring_view text() const {
    const std::wstring_view units(static_cast<const wchar_t*>(bytes_), size() / sizeof(wchar_t));
    return units.substr(0, units.find(L'\0'));
  }

 private:
  const HANDLE block_;
  const void* const bytes_;
};

std::uint64_t utf8_size(std::wstring_view text) {
  return text.empty() ? 0
                      : static_cast<std::uint64_t>(WideCharToMultiByte(
                            CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                            nullptr, nullptr));
}

ClipboardBlock text_block(std::wstring_view text, std::uint64_t most_bytes) {
  ClipboardBlock block;
  block.size = text.size() > SIZED_UNITS_MAX ? text.size() : utf8_size(text);
  if (block.size > most_bytes) return block;
  const std::string utf8 = to_utf8(text);
  block.bytes.assign(utf8.begin(), utf8.end());
  return block;
}

ClipboardBlock bytes_block(const LockedBlock& from, std::uint64_t most_bytes) {
  ClipboardBlock block;
  block.size = from.size();
  if (block.size <= most_bytes) block.bytes.assign(from.bytes(), from.bytes() + block.size);
  return block;
}

std::optional<ClipboardBlock> read_format(UINT format, std::uint64_t most_bytes) {
  const LockedBlock block(GetClipboardData(format));
  if (!block) return std::nullopt;
  return format == CF_UNICODETEXT ? text_block(block.text(), most_bytes)
                                  : bytes_block(block, most_bytes);
}

bool fits_its_header(const ClipboardBlock& dib) {
  if (dib.bytes.size() < dib.size) return true;  // it is too large to be had
  const auto layout = read_dib_header(dib.bytes);
  return layout && layout->lies_within(dib.size) && layout->pixels < dib.size;
}

// Empty when memory is short.
GlobalBlock movable_block(const void* bytes, std::size_t size) {
  GlobalBlock block(GlobalAlloc(GMEM_MOVEABLE, size));
  void* to = block ? GlobalLock(block.get()) : nullptr;
  if (to == nullptr) return {};
  std::copy_n(static_cast<const std::uint8_t*>(bytes), size, static_cast<std::uint8_t*>(to));
  GlobalUnlock(block.get());
  return block;
}

class WinClipboard final : public ClipboardAccess {
 public:
  const ClipboardTraits& traits() const override { return TRAITS; }
  bool start(const ClipboardLog& log) override;
  void finish() override;
  bool has_pictures() override { return pictures_; }
  bool wait(std::uint32_t timeout_ms) override { return window_.wait(timeout_ms); }
  std::uint32_t sequence() override { return GetClipboardSequenceNumber(); }
  bool open() override;
  bool has(ClipboardForm form) override;
  std::optional<ClipboardBlock> read(ClipboardForm form, std::uint64_t most_bytes) override;
  void close() override { CloseClipboard(); }
  std::optional<std::uint32_t> write(std::shared_ptr<const ClipboardContent> content) override;
  void wake() override { window_.wake(); }
  void interrupt() override { window_.end(); }

 private:
  using Blocks = std::vector<std::pair<UINT, GlobalBlock>>;
  std::optional<Blocks> blocks_of(const ClipboardContent& content) const;
  UINT format_of(ClipboardForm form) const;

  std::optional<ComThread> com_;
  ListenerWindow window_;
  bool pictures_ = false;
  UINT png_format_ = 0;
  UINT private_format_ = 0;
};

bool WinClipboard::start(const ClipboardLog& log) {
  com_.emplace(COINIT_APARTMENTTHREADED);
  pictures_ = static_cast<bool>(Wic());
  png_format_ = RegisterClipboardFormatW(L"PNG");
  private_format_ = RegisterClipboardFormatW(L"ExcludeClipboardContentFromMonitorProcessing");
  return window_.open(log);
}

void WinClipboard::finish() {
  window_.close();
  com_.reset();
}

bool WinClipboard::open() {
  return window_.get() != nullptr && OpenClipboard(window_.get());
}

UINT WinClipboard::format_of(ClipboardForm form) const {
  switch (form) {
    case ClipboardForm::PrivateMark:
      return private_format_;
    case ClipboardForm::Text:
      return CF_UNICODETEXT;
    case ClipboardForm::Png:
      return png_format_;
    case ClipboardForm::Dib:
      return IsClipboardFormatAvailable(CF_DIBV5) ? CF_DIBV5 : CF_DIB;
  }
  return 0;
}

bool WinClipboard::has(ClipboardForm form) {
  return IsClipboardFormatAvailable(format_of(form)) != FALSE;
}

std::optional<ClipboardBlock> WinClipboard::read(ClipboardForm form, std::uint64_t most_bytes) {
  const UINT format = format_of(form);
  auto block = read_format(format, most_bytes);
  // The system makes one header's bitmap of the other's, and of some it makes none that holds
  // together; then there is the one that it was made of.
  if (format != CF_DIBV5 || (block && fits_its_header(*block))) return block;
  auto older = read_format(CF_DIB, most_bytes);
  return older ? std::move(older) : std::move(block);
}

std::optional<WinClipboard::Blocks> WinClipboard::blocks_of(const ClipboardContent& content) const {
  Blocks blocks;
  if (content.text) {
    const std::wstring text = to_wide(*content.text);
    blocks.emplace_back(CF_UNICODETEXT,
                        movable_block(text.c_str(), (text.size() + 1) * sizeof(wchar_t)));
  }
  if (!content.dib.empty())
    blocks.emplace_back(CF_DIB, movable_block(content.dib.data(), content.dib.size()));
  if (!content.png.empty())
    blocks.emplace_back(png_format_, movable_block(content.png.data(), content.png.size()));
  for (const auto& [format, block] : blocks) {
    if (!block) return std::nullopt;
  }
  return blocks;
}

// A block that the system takes is its own from then on.
std::optional<std::uint32_t> WinClipboard::write(std::shared_ptr<const ClipboardContent> content) {
  auto blocks = blocks_of(*content);
  if (!blocks || !open()) return std::nullopt;
  EmptyClipboard();
  for (auto& [format, block] : *blocks) {
    if (SetClipboardData(format, block.get()) != nullptr) block.release();
  }
  const DWORD while_open = GetClipboardSequenceNumber();
  CloseClipboard();
  const DWORD closed = GetClipboardSequenceNumber();
  // Somebody else may have been faster, whose change is none of ours.
  return GetClipboardOwner() == window_.get() ? closed : while_open;
}

}  // namespace

std::unique_ptr<ClipboardAccess> make_clipboard_access() {
  return std::make_unique<WinClipboard>();
}
