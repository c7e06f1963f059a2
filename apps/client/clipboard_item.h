// What a clipboard holds, and what a file is when it shall go there.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "streams/clipboard.h"

struct ClipboardItem {
  lund_clip_kind kind = LUND_CLIP_TEXT;
  std::vector<std::uint8_t> bytes;  // UTF-8 with line feeds, or PNG
};

// By content: the PNG signature, or else UTF-8 text, of which line ends become line feeds. Nothing
// with `error` for anything else, for nothing at all, and for more than the clipboard takes.
std::optional<ClipboardItem> clipboard_item(std::vector<std::uint8_t> bytes, std::string* error);

// "-" stands for the standard streams. Nothing, or false, with `error`.
std::optional<ClipboardItem> read_clipboard_item(const std::filesystem::path& path,
                                                 std::string* error);
bool write_clipboard_item(const std::filesystem::path& path, const ClipboardItem& item,
                          std::string* error);
