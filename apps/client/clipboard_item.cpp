#include "apps/client/clipboard_item.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string_view>

#include "apps/terminal/binary_stream.h"
#include "control/utf8.h"
#include "streams/clipboard_text.h"

namespace {

constexpr std::array<std::uint8_t, 8> PNG_SIGNATURE = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};

std::string_view as_text(const std::vector<std::uint8_t>& bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace

std::optional<ClipboardItem> clipboard_item(std::vector<std::uint8_t> bytes, std::string* error) {
  ClipboardItem item;
  item.bytes = std::move(bytes);
  const bool is_png = item.bytes.size() >= PNG_SIGNATURE.size() &&
                      std::equal(PNG_SIGNATURE.begin(), PNG_SIGNATURE.end(), item.bytes.begin());
  if (is_png) {
    item.kind = LUND_CLIP_PNG;
  } else if (const std::string_view text = as_text(item.bytes);
             is_utf8(text) && text.find('\0') == std::string_view::npos) {
    const std::string with_line_feeds = text_for_wire(text);
    item.bytes.assign(with_line_feeds.begin(), with_line_feeds.end());
  } else {
    *error = "neither a PNG picture nor UTF-8 text";
    return std::nullopt;
  }
  const std::uint32_t limit = is_png ? LUND_CLIP_IMAGE_MAX : LUND_CLIP_TEXT_MAX;
  if (item.bytes.empty()) *error = "empty";
  if (item.bytes.size() > limit)
    *error = "more than the " + std::to_string(limit >> 20) + " MiB that a clipboard's " +
             (is_png ? "picture" : "text") + " may have";
  if (item.bytes.empty() || item.bytes.size() > limit) return std::nullopt;
  return item;
}

std::optional<ClipboardItem> read_clipboard_item(const std::filesystem::path& path,
                                                 std::string* error) {
  std::ifstream file;
  const bool standard = path == "-";
  if (standard)
    make_binary(stdin);
  else
    file.open(path, std::ios::binary);
  std::istream& in = standard ? std::cin : file;
  std::vector<std::uint8_t> bytes{std::istreambuf_iterator<char>(in), {}};
  if (!standard && (!file.is_open() || file.bad())) {
    *error = "cannot read " + path.string();
    return std::nullopt;
  }
  std::string why;
  auto item = clipboard_item(std::move(bytes), &why);
  if (!item) *error = (standard ? "standard input" : path.string()) + ": " + why;
  return item;
}

bool write_clipboard_item(const std::filesystem::path& path, const ClipboardItem& item,
                          std::string* error) {
  std::ofstream file;
  const bool standard = path == "-";
  if (standard)
    make_binary(stdout);
  else
    file.open(path, std::ios::binary | std::ios::trunc);
  std::ostream& out = standard ? std::cout : file;
  out.write(reinterpret_cast<const char*>(item.bytes.data()),
            static_cast<std::streamsize>(item.bytes.size()));
  out.flush();
  if (out) return true;
  *error = "cannot write " + (standard ? "standard output" : path.string());
  return false;
}
