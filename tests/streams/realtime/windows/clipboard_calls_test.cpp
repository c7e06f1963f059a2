// What the clipboard's listener asks of Windows, in which order and how often, and how it takes a
// refusal.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "control/windows/com.h"
#include "control/windows/wide_text.h"
#include "streams/clipboard_bridge.h"
#include "tests/streams/realtime/bridge_ends.h"
#include "tests/streams/realtime/clipboard_user.h"
#include "tests/streams/realtime/desktop_clipboard.h"
#include "tests/streams/realtime/windows/other_program.h"
#include "tests/support/windows/recorded_calls.h"
// After what com.h includes.
#include <wincodec.h>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

namespace {

constexpr wchar_t LISTENER_CLASS[] = L"LunderhazeClipboardSync";

bool refuses(const std::string& call) {
  return RecordedCalls::refuse(call);
}
template <class Function>
Function* user(const char* name, Function* type) {
  return system_function(L"user32.dll", name, type);
}
template <class Function>
Function* kernel(const char* name, Function* type) {
  return system_function(L"kernel32.dll", name, type);
}
template <class Function>
Function* com(const char* name, Function* type) {
  return system_function(L"ole32.dll", name, type);
}

// ---- The listener's thread and window

HRESULT WINAPI enter(void* reserved, DWORD model) {
  static auto* const pass = com("CoInitializeEx", &enter);
  refuses("CoInitializeEx " + std::to_string(model));
  return pass(reserved, model);
}

void WINAPI leave() {
  static auto* const pass = com("CoUninitialize", &leave);
  refuses("CoUninitialize");
  pass();
}

HRESULT WINAPI create(const IID& type, IUnknown* outer, DWORD context, const IID& wanted,
                      void** out) {
  static auto* const pass = com("CoCreateInstance", &create);
  *out = nullptr;
  return IsEqualCLSID(type, CLSID_WICImagingFactory) &&
                 refuses("CoCreateInstance of WIC in context " + std::to_string(context))
             ? static_cast<HRESULT>(GetLastError())
             : pass(type, outer, context, wanted, out);
}

UINT WINAPI register_format(const wchar_t* name) {
  static auto* const pass = user("RegisterClipboardFormatW", &register_format);
  refuses("RegisterClipboardFormatW " + to_utf8(name));
  return pass(name);
}

ATOM WINAPI register_class(const WNDCLASSEXW* window_class) {
  static auto* const pass = user("RegisterClassExW", &register_class);
  refuses("RegisterClassExW " + to_utf8(window_class->lpszClassName));
  return pass(window_class);
}

bool is_listener(const wchar_t* class_name) {
  return !IS_INTRESOURCE(class_name) && std::wstring_view(class_name) == LISTENER_CLASS;
}

HWND WINAPI create_window(DWORD extended, const wchar_t* class_name, const wchar_t* title,
                          DWORD style, int x, int y, int width, int height, HWND parent, HMENU menu,
                          HINSTANCE instance, void* parameter) {
  static auto* const pass = user("CreateWindowExW", &create_window);
  return is_listener(class_name) &&
                 refuses(parent == HWND_MESSAGE ? "CreateWindowExW of messages" : "CreateWindowExW")
             ? nullptr
             : pass(extended, class_name, title, style, x, y, width, height, parent, menu, instance,
                    parameter);
}

BOOL WINAPI destroy_window(HWND window) {
  static auto* const pass = user("DestroyWindow", &destroy_window);
  refuses("DestroyWindow");
  return pass(window);
}

BOOL WINAPI add_listener(HWND window) {
  static auto* const pass = user("AddClipboardFormatListener", &add_listener);
  return refuses("AddClipboardFormatListener") ? FALSE : pass(window);
}

BOOL WINAPI remove_listener(HWND window) {
  static auto* const pass = user("RemoveClipboardFormatListener", &remove_listener);
  refuses("RemoveClipboardFormatListener");
  return pass(window);
}

UINT_PTR WINAPI set_timer(HWND window, UINT_PTR id, UINT ms, TIMERPROC procedure) {
  static auto* const pass = user("SetTimer", &set_timer);
  return refuses("SetTimer " + std::to_string(id)) ? 0 : pass(window, id, ms, procedure);
}

BOOL WINAPI kill_timer(HWND window, UINT_PTR id) {
  static auto* const pass = user("KillTimer", &kill_timer);
  refuses("KillTimer " + std::to_string(id));
  return pass(window, id);
}

BOOL WINAPI post(HWND window, UINT message, WPARAM w, LPARAM l) {
  static auto* const pass = user("PostMessageW", &post);
  return refuses("PostMessageW " + std::to_string(message)) ? FALSE : pass(window, message, w, l);
}

// ---- The clipboard

BOOL WINAPI open_clipboard(HWND window) {
  static auto* const pass = user("OpenClipboard", &open_clipboard);
  return refuses("OpenClipboard") ? FALSE : pass(window);
}

BOOL WINAPI empty_clipboard() {
  static auto* const pass = user("EmptyClipboard", &empty_clipboard);
  refuses("EmptyClipboard");
  return pass();
}

HANDLE WINAPI get_data(UINT format) {
  static auto* const pass = user("GetClipboardData", &get_data);
  return refuses("GetClipboardData " + std::to_string(format)) ? nullptr : pass(format);
}

HANDLE WINAPI set_data(UINT format, HANDLE block) {
  static auto* const pass = user("SetClipboardData", &set_data);
  return refuses("SetClipboardData " + std::to_string(format)) ? nullptr : pass(format, block);
}

BOOL WINAPI close_clipboard() {
  static auto* const pass = user("CloseClipboard", &close_clipboard);
  refuses("CloseClipboard");
  return pass();
}

HGLOBAL WINAPI allocate(UINT flags, SIZE_T size) {
  static auto* const pass = kernel("GlobalAlloc", &allocate);
  return refuses("GlobalAlloc " + std::to_string(flags) + " " + std::to_string(size))
             ? nullptr
             : pass(flags, size);
}

HGLOBAL WINAPI free_block(HGLOBAL block) {
  static auto* const pass = kernel("GlobalFree", &free_block);
  refuses("GlobalFree");
  return pass(block);
}

}  // namespace

extern "C" {
decltype(&enter) __imp_CoInitializeEx = enter;
decltype(&leave) __imp_CoUninitialize = leave;
decltype(&create) __imp_CoCreateInstance = create;
decltype(&register_format) __imp_RegisterClipboardFormatW = register_format;
decltype(&register_class) __imp_RegisterClassExW = register_class;
decltype(&create_window) __imp_CreateWindowExW = create_window;
decltype(&destroy_window) __imp_DestroyWindow = destroy_window;
decltype(&add_listener) __imp_AddClipboardFormatListener = add_listener;
decltype(&remove_listener) __imp_RemoveClipboardFormatListener = remove_listener;
decltype(&set_timer) __imp_SetTimer = set_timer;
decltype(&kill_timer) __imp_KillTimer = kill_timer;
decltype(&post) __imp_PostMessageW = post;
decltype(&open_clipboard) __imp_OpenClipboard = open_clipboard;
decltype(&empty_clipboard) __imp_EmptyClipboard = empty_clipboard;
decltype(&get_data) __imp_GetClipboardData = get_data;
decltype(&set_data) __imp_SetClipboardData = set_data;
decltype(&close_clipboard) __imp_CloseClipboard = close_clipboard;
decltype(&allocate) __imp_GlobalAlloc = allocate;
decltype(&free_block) __imp_GlobalFree = free_block;
}

namespace {

// ---- On the test's own thread

class ClipboardCalls : public testing::Test {
 protected:
  ClipboardLog log() {
    return [this](const std::string& line) { lines_.push_back(line); };
  }
  void start() {
    ASSERT_TRUE(access_->start(log()));
    calls_.take();
  }
  ~ClipboardCalls() override { access_->finish(); }

  std::vector<std::string> lines_;
  RecordedCalls calls_;
  const std::unique_ptr<ClipboardAccess> access_ = make_clipboard_access();
};

TEST_F(ClipboardCalls, ItListensByAWindowOfMessagesAndHasItNoLongerThanItListens) {
  EXPECT_TRUE(access_->start(log()));
  std::vector<std::string> calls = calls_.take();
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls[0], "CoInitializeEx 2");  // COINIT_APARTMENTTHREADED
  const auto entered = count_calls(calls, "CoInitializeEx"),
             left = count_calls(calls, "CoUninitialize");
  std::erase_if(calls, [](const std::string& call) {
    return call.starts_with("CoUninit") || call.starts_with("CoInit");
  });
  EXPECT_THAT(calls,
              ElementsAre("CoCreateInstance of WIC in context 1",  // CLSCTX_INPROC_SERVER
                          "RegisterClipboardFormatW PNG",
                          "RegisterClipboardFormatW ExcludeClipboardContentFromMonitorProcessing",
                          "RegisterClassExW LunderhazeClipboardSync", "CreateWindowExW of messages",
                          "AddClipboardFormatListener"));
  EXPECT_EQ(entered, left + 1);
  access_->finish();
  EXPECT_THAT(calls_.take(),
              ElementsAre("DestroyWindow", "RemoveClipboardFormatListener", "CoUninitialize"));
}

TEST_F(ClipboardCalls, AListenerThatIsRefusedIsToldWithItsErrorAndTheRestGoesOn) {
  calls_.fail("AddClipboardFormatListener", ERROR_ACCESS_DENIED);
  EXPECT_TRUE(access_->start(log()));
  EXPECT_THAT(lines_, ElementsAre("clipboard: AddClipboardFormatListener failed (5)"));
  EXPECT_TRUE(access_->write(text_content("written")));
}

TEST_F(ClipboardCalls, WithoutAWindowThereIsNoClipboardAndNothingIsLeft) {
  calls_.fail("CreateWindowExW", ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_FALSE(access_->start(log()));
  calls_.take();
  EXPECT_FALSE(access_->wait(ClipboardAccess::FOREVER_MS));
  EXPECT_FALSE(access_->open());
  EXPECT_FALSE(access_->write(text_content("nobody's")));
  access_->wake();
  access_->interrupt();
  EXPECT_THAT(calls_.take(), ElementsAre("GlobalAlloc 2 18", "GlobalFree"));
  access_->finish();
  EXPECT_THAT(calls_.take(), ElementsAre("CoUninitialize"));
}

TEST_F(ClipboardCalls, WithoutTheImagingComponentThereAreNoPictures) {
  calls_.fail("CoCreateInstance of WIC", static_cast<DWORD>(REGDB_E_CLASSNOTREG));
  EXPECT_TRUE(access_->start(log()));
  EXPECT_FALSE(access_->has_pictures());
}

TEST_F(ClipboardCalls, AWaitWithATimeHasATimerAndOneWithoutHasNone) {
  start();
  EXPECT_FALSE(access_->wait(20));
  EXPECT_THAT(calls_.take(), testing::AllOf(Contains("SetTimer 1"), Contains("KillTimer 1")));
  access_->wake();
  EXPECT_THAT(calls_.take(), ElementsAre("PostMessageW 32849"));  // WM_APP + 0x51
  EXPECT_FALSE(access_->wait(ClipboardAccess::FOREVER_MS));
  EXPECT_THAT(calls_.take(), IsEmpty());
  access_->interrupt();
  EXPECT_THAT(calls_.take(), ElementsAre("PostMessageW 16"));  // WM_CLOSE
  EXPECT_FALSE(access_->wait(ClipboardAccess::FOREVER_MS));
  EXPECT_THAT(calls_.take(), ElementsAre("DestroyWindow", "RemoveClipboardFormatListener"));
}

TEST_F(ClipboardCalls, BlocksAreMadeBeforeTheClipboardIsOpenedAndAreItsOwnFromThenOn) {
  start();
  ASSERT_TRUE(access_->write(text_content("four")));
  EXPECT_THAT(calls_.take(), ElementsAre("GlobalAlloc 2 10", "OpenClipboard", "EmptyClipboard",
                                         "SetClipboardData 13", "CloseClipboard"));
  auto pictures = std::make_shared<ClipboardContent>();
  pictures->dib = std::vector<std::uint8_t>(44);
  pictures->png = {1, 2, 3};
  ASSERT_TRUE(access_->write(pictures));
  const std::string png = std::to_string(RegisterClipboardFormatW(L"PNG"));
  EXPECT_THAT(calls_.take(),
              ElementsAre("GlobalAlloc 2 44", "GlobalAlloc 2 3", "OpenClipboard", "EmptyClipboard",
                          "SetClipboardData 8", "SetClipboardData " + png, "CloseClipboard",
                          "RegisterClipboardFormatW PNG"));
}

TEST_F(ClipboardCalls, ABlockThatTheSystemRefusesIsFreedByItsMaker) {
  start();
  calls_.fail("SetClipboardData", ERROR_NOT_ENOUGH_MEMORY);
  access_->write(text_content("four"));
  EXPECT_THAT(calls_.take(), ElementsAre("GlobalAlloc 2 10", "OpenClipboard", "EmptyClipboard",
                                         "SetClipboardData 13", "CloseClipboard", "GlobalFree"));
}

TEST_F(ClipboardCalls, WithoutMemoryForAllBlocksTheClipboardIsNotOpened) {
  start();
  auto pictures = std::make_shared<ClipboardContent>();
  pictures->dib = std::vector<std::uint8_t>(44);
  pictures->png = {1, 2, 3};
  calls_.fail("GlobalAlloc 2 3", ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_FALSE(access_->write(pictures));
  EXPECT_THAT(calls_.take(), ElementsAre("GlobalAlloc 2 44", "GlobalAlloc 2 3", "GlobalFree"));
}

TEST_F(ClipboardCalls, WhatIsThereAndCannotBeHadIsNothing) {
  start();
  ASSERT_TRUE(access_->write(text_content("four")));
  ASSERT_TRUE(access_->open());
  calls_.fail("GetClipboardData", ERROR_CLIPBOARD_NOT_OPEN);
  EXPECT_TRUE(access_->has(ClipboardForm::Text));
  EXPECT_FALSE(access_->read(ClipboardForm::Text, 100));
  EXPECT_FALSE(access_->read(ClipboardForm::Dib, 100));
  access_->close();
}

// ---- On a bridge's listener

class ClipboardBridgeCalls : public testing::Test {
 protected:
  void begin() {
    ASSERT_TRUE(host_.start());
    ASSERT_TRUE(client_.start());
    session_.emplace(host_, client_);
    calls_.take();
  }

  RecordedCalls calls_;
  Lines host_lines_;
  Lines client_lines_;
  Desktop desktop_;
  ClipboardSync host_{make_clipboard_access(), host_lines_.log(), true};
  ClipboardSync client_{std::make_unique<DesktopClipboard>(desktop_), client_lines_.log(), true};
  std::optional<BridgeSession> session_;
};

constexpr char NOT_READ[] = "clipboard: could not open the clipboard to read a change";

TEST_F(ClipboardBridgeCalls, WithoutAWindowItDoesNotStart) {
  calls_.fail("CreateWindowExW", ERROR_NOT_ENOUGH_MEMORY);
  EXPECT_FALSE(host_.start());
}

TEST_F(ClipboardBridgeCalls, WithoutTheImagingComponentItSaysSoAndTextGoesOn) {
  calls_.fail("CoCreateInstance of WIC", static_cast<DWORD>(REGDB_E_CLASSNOTREG));
  begin();
  EXPECT_THAT(host_lines_.all(),
              Contains("clipboard: WIC is not available; images are not synced"));
  other_program::copy_text(L"text");
  EXPECT_EQ(desktop_.text_after_waiting_for("text"), "text");
}

TEST_F(ClipboardBridgeCalls, AChangeIsReadAtTheTenthRetry) {
  begin();
  calls_.fail("OpenClipboard", ERROR_ACCESS_DENIED, 10);
  other_program::copy_text(L"at last");
  EXPECT_EQ(desktop_.text_after_waiting_for("at last"), "at last");
  const std::vector<std::string> calls = calls_.take();
  EXPECT_EQ(count_calls(calls, "OpenClipboard"), 11);
  EXPECT_GE(count_calls(calls, "SetTimer 1"), 10);
  EXPECT_THAT(host_lines_.all(), Not(Contains(NOT_READ)));
}

TEST_F(ClipboardBridgeCalls, AfterTheTenthRetryAChangeIsGivenUpAndTheNextOneIsRead) {
  begin();
  calls_.fail("OpenClipboard", ERROR_ACCESS_DENIED, 11);
  other_program::copy_text(L"never");
  EXPECT_TRUE(host_lines_.wait_for(NOT_READ));
  EXPECT_EQ(count_calls(calls_.take(), "OpenClipboard"), 11);
  other_program::copy_text(L"the next one");
  EXPECT_EQ(desktop_.text_after_waiting_for("the next one"), "the next one");
}

TEST_F(ClipboardBridgeCalls, WithoutATimerItRetriesAllTheSame) {
  begin();
  calls_.fail("SetTimer", ERROR_NOT_ENOUGH_MEMORY);
  calls_.fail("OpenClipboard", ERROR_ACCESS_DENIED, 3);
  other_program::copy_text(L"at last");
  EXPECT_EQ(desktop_.text_after_waiting_for("at last"), "at last");
}

TEST_F(ClipboardBridgeCalls, AnItemIsTriedTenTimesAndThenGivenUp) {
  begin();
  calls_.fail("OpenClipboard", ERROR_ACCESS_DENIED);
  desktop_.copy_text("nobody's");
  EXPECT_TRUE(host_lines_.wait_for("clipboard: could not open the clipboard to set #1"));
  const std::vector<std::string> calls = calls_.take();
  EXPECT_EQ(count_calls(calls, "OpenClipboard"), 10);
  EXPECT_EQ(count_calls(calls, "GlobalFree"), count_calls(calls, "GlobalAlloc"));
  EXPECT_EQ(count_calls(calls, "EmptyClipboard"), 0);
}

TEST_F(ClipboardBridgeCalls, AnItemForWhichThereIsNoMemoryIsGivenUpWithTheSameLine) {
  begin();
  calls_.fail("GlobalAlloc", ERROR_NOT_ENOUGH_MEMORY);
  desktop_.copy_text("nobody's");
  EXPECT_TRUE(host_lines_.wait_for("clipboard: could not open the clipboard to set #1"));
  EXPECT_EQ(count_calls(calls_.take(), "OpenClipboard"), 0);
}

}  // namespace
