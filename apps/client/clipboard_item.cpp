#include "apps/client/clipboard_item.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <iostream>
#include <iterator>

namespace {

constexpr std::array<std::uint8_t, 8> PNG_SIGNATURE = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};

// RFC 3629: neither overlong forms, surrogates, nor anything beyond U+10FFFF. Text has no NUL.
bool is_text(const std::vector<std::uint8_t>& bytes) {
  for (std::size_t i = 0; i < bytes.size();) {
    const std::uint8_t lead = bytes[i];
    if (lead == 0) return false;
    const std::size_t size = lead < 0x80                   ? 1
                             : lead >= 0xC2 && lead < 0xE0 ? 2
                             : lead >= 0xE0 && lead < 0xF0 ? 3
                             : lead >= 0xF0 && lead < 0xF5 ? 4
                                                           : 0;
    if (size == 0 || size > bytes.size() - i) return false;
    for (std::size_t k = 1; k < size; ++k)
      if ((bytes[i + k] & 0xC0) != 0x80) return false;
    const std::uint8_t second = size > 1 ? bytes[i + 1] : 0;
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90))
      return false;
    i += size;
  }
  return true;
}

void use_line_feeds(std::vector<std::uint8_t>& text) {
  std::size_t out = 0;
  for (std::size_t i = 0; i < text.size(); ++i)
    if (text[i] != '\r' || i + 1 == text.size() || text[i + 1] != '\n') text[out++] = text[i];
  text.resize(out);
}

}  // namespace

std::optional<ClipboardItem> clipboard_item(std::vector<std::uint8_t> bytes, std::string* error) {
  ClipboardItem item;
  item.bytes = std::move(bytes);
  const bool is_png = item.bytes.size() >= PNG_SIGNATURE.size() &&
                      std::equal(PNG_SIGNATURE.begin(), PNG_SIGNATURE.end(), item.bytes.begin());
  if (is_png) {
    item.kind = LUND_CLIP_PNG;
  } else if (is_text(item.bytes)) {
    use_line_feeds(item.bytes);
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
  if (!standard) file.open(path, std::ios::binary);
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
  if (!standard) file.open(path, std::ios::binary | std::ios::trunc);
  std::ostream& out = standard ? std::cout : file;
  out.write(reinterpret_cast<const char*>(item.bytes.data()),
            static_cast<std::streamsize>(item.bytes.size()));
  out.flush();
  if (out) return true;
  *error = "cannot write " + (standard ? "standard output" : path.string());
  return false;
}
