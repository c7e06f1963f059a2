// What GDI is asked for a bitmap that it converts, and that nothing of it is left behind whichever
// call fails.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/streams/dib_builder.h"
#include "tests/support/windows/recorded_calls.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

bool refuses(const std::string& call) {
  return RecordedCalls::refuse(call);
}
template <class Function>
Function* gdi(const char* name, Function* type) {
  return system_function(L"gdi32.dll", name, type);
}

std::string size_of(const BITMAPINFO* info) {
  const BITMAPINFOHEADER& header = info->bmiHeader;
  return std::to_string(header.biWidth) + "x" + std::to_string(header.biHeight) + " of " +
         std::to_string(header.biBitCount) + " bits";
}

HDC WINAPI make_context(HDC like) {
  static auto* const pass = gdi("CreateCompatibleDC", &make_context);
  return refuses("CreateCompatibleDC") ? nullptr : pass(like);
}

HBITMAP WINAPI make_section(HDC dc, const BITMAPINFO* info, UINT usage, void** bits, HANDLE section,
                            DWORD offset) {
  static auto* const pass = gdi("CreateDIBSection", &make_section);
  return refuses("CreateDIBSection " + size_of(info))
             ? nullptr
             : pass(dc, info, usage, bits, section, offset);
}

HGDIOBJ WINAPI select_object(HDC dc, HGDIOBJ object) {
  static auto* const pass = gdi("SelectObject", &select_object);
  return refuses("SelectObject") ? nullptr : pass(dc, object);
}

int WINAPI set_bits(HDC dc, int x, int y, DWORD width, DWORD height, int from_x, int from_y,
                    UINT first_row, UINT rows, const void* bits, const BITMAPINFO* info,
                    UINT usage) {
  static auto* const pass = gdi("SetDIBitsToDevice", &set_bits);
  const std::string area = " to " + std::to_string(width) + "x" + std::to_string(height) + " at " +
                           std::to_string(x) + "," + std::to_string(y);
  return refuses("SetDIBitsToDevice " + size_of(info) + ", rows " + std::to_string(first_row) +
                 " and " + std::to_string(rows) + " on," + area)
             ? 0
             : pass(dc, x, y, width, height, from_x, from_y, first_row, rows, bits, info, usage);
}

BOOL WINAPI flush() {
  static auto* const pass = gdi("GdiFlush", &flush);
  refuses("GdiFlush");
  return pass();
}

BOOL WINAPI delete_object(HGDIOBJ object) {
  static auto* const pass = gdi("DeleteObject", &delete_object);
  refuses("DeleteObject");
  return pass(object);
}

BOOL WINAPI delete_context(HDC dc) {
  static auto* const pass = gdi("DeleteDC", &delete_context);
  refuses("DeleteDC");
  return pass(dc);
}

}  // namespace

extern "C" {
decltype(&make_context) __imp_CreateCompatibleDC = make_context;
decltype(&make_section) __imp_CreateDIBSection = make_section;
decltype(&select_object) __imp_SelectObject = select_object;
decltype(&set_bits) __imp_SetDIBitsToDevice = set_bits;
decltype(&flush) __imp_GdiFlush = flush;
decltype(&delete_object) __imp_DeleteObject = delete_object;
decltype(&delete_context) __imp_DeleteDC = delete_context;
}

namespace {

using Bytes = std::vector<std::uint8_t>;

// Three rows of two pixels, bottom row first.
const DibBuilder SIXTEEN_BITS{
    .width = 2, .height = 3, .bits = 16, .rows = {1, 0, 2, 0, 3, 0, 4, 0, 5, 0, 6, 0}};

bool converts(const DibBuilder& dib) {
  Image image;
  const Bytes block = dib.build();
  return image_from_dib(block, &image);
}

TEST(GdiCalls, ABitmapIsDrawnWholeIntoOneOfThirtyTwoBitsTopRowFirst) {
  RecordedCalls calls;
  EXPECT_TRUE(converts(SIXTEEN_BITS));
  EXPECT_THAT(calls.take(),
              ElementsAre("CreateCompatibleDC", "CreateDIBSection 2x-3 of 32 bits", "SelectObject",
                          "SetDIBitsToDevice 2x3 of 16 bits, rows 0 and 3 on, to 2x3 at 0,0",
                          "GdiFlush", "SelectObject", "DeleteObject", "DeleteDC"));
}

TEST(GdiCalls, WhatIsCopiedAsItIsAsksNothing) {
  RecordedCalls calls;
  EXPECT_TRUE(converts({.bits = 24, .rows = {1, 2, 3, 0}}));
  EXPECT_TRUE(converts({.bits = 32, .rows = {1, 2, 3, 4}}));
  EXPECT_TRUE(converts({.bits = 32,
                        .compression = DIB_BITFIELDS,
                        .masks = {0xFF0000, 0xFF00, 0xFF},
                        .rows = {1, 2, 3, 4}}));
  EXPECT_THAT(calls.take(), IsEmpty());
}

TEST(GdiCalls, ABlockThatEndsBeforeItsPixelsAsksNothing) {
  RecordedCalls calls;
  EXPECT_FALSE(converts({.bits = 8, .compression = 1, .colours_used = 2, .palette = {0x030201}}));
  EXPECT_THAT(calls.take(), IsEmpty());
}

TEST(GdiCalls, AFailureOfAnyIsOneOfTheConversionAndLeavesNothingBehind) {
  for (const char* call :
       {"CreateCompatibleDC", "CreateDIBSection", "SelectObject", "SetDIBitsToDevice"}) {
    RecordedCalls calls;
    calls.fail(call, ERROR_NOT_ENOUGH_MEMORY, 1);
    EXPECT_FALSE(converts(SIXTEEN_BITS)) << call;
    const std::vector<std::string> asked = calls.take();
    const auto made = [&](const std::string& name) {
      return count_calls(asked, name) - (name == call);
    };
    EXPECT_EQ(count_calls(asked, "DeleteDC"), made("CreateCompatibleDC")) << call;
    EXPECT_EQ(count_calls(asked, "DeleteObject"), made("CreateDIBSection")) << call;
    EXPECT_EQ(count_calls(asked, "GdiFlush"), 0) << call;
  }
}

}  // namespace
