#include "apps/client/clipboard_item.h"

#include <gtest/gtest.h>

namespace {

using Bytes = std::vector<std::uint8_t>;
const std::string PNG_START = "\x89PNG\r\n\x1A\n";

std::optional<ClipboardItem> item_of(const std::string& content, std::string* error = nullptr) {
  std::string unused;
  return clipboard_item(Bytes(content.begin(), content.end()), error ? error : &unused);
}
std::string text_of(const std::optional<ClipboardItem>& item) {
  return item && item->kind == LUND_CLIP_TEXT ? std::string(item->bytes.begin(), item->bytes.end())
                                              : "(no text)";
}

}  // namespace

TEST(ClipboardItem, TheSignatureMakesAPicture) {
  const auto item = item_of(PNG_START + std::string("\0\0", 2));
  ASSERT_TRUE(item);
  EXPECT_EQ(item->kind, LUND_CLIP_PNG);
  EXPECT_EQ(item->bytes.size(), 10u);
}

TEST(ClipboardItem, TextIsUtf8WithLineFeeds) {
  EXPECT_EQ(text_of(item_of("a\r\nb\rc\n\r\n")), "a\nb\rc\n\n");
  EXPECT_EQ(text_of(item_of("\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x99\x82")),
            "\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x99\x82");
}

TEST(ClipboardItem, WhatIsNoTextIsRefused) {
  for (const std::string& content :
       {std::string("a\0b", 3), std::string("\xC3"), std::string("\xC0\x80"),
        std::string("\xE0\x80\x80"), std::string("\xED\xA0\x80"), std::string("\xF0\x80\x80\x80"),
        std::string("\xF4\x90\x80\x80"), std::string("\xF5\x80\x80\x80"), std::string("\xFF\xFE"),
        std::string("\x80"), std::string("\x89PNG\r\n")}) {
    std::string error;
    EXPECT_FALSE(item_of(content, &error)) << testing::PrintToString(content);
    EXPECT_EQ(error, "neither a PNG picture nor UTF-8 text");
  }
}

TEST(ClipboardItem, SizesAreTheClipboards) {
  std::string error;
  EXPECT_FALSE(item_of("", &error));
  EXPECT_EQ(error, "empty");
  EXPECT_TRUE(item_of(std::string(LUND_CLIP_TEXT_MAX, 'a')));
  EXPECT_FALSE(item_of(std::string(LUND_CLIP_TEXT_MAX + 1, 'a'), &error));
  EXPECT_EQ(error, "more than the 1 MiB that a clipboard's text may have");
  EXPECT_TRUE(item_of(PNG_START + std::string(LUND_CLIP_IMAGE_MAX - 8, 'a')));
  EXPECT_FALSE(item_of(PNG_START + std::string(LUND_CLIP_IMAGE_MAX - 7, 'a'), &error));
  EXPECT_EQ(error, "more than the 16 MiB that a clipboard's picture may have");
}
