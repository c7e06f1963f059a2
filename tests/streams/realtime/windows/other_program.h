// The Windows program beside the tests that copies and pastes for them, clipboard_program. One
// thread.
#pragma once

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "control/windows/handles.h"
#include "control/windows/wide_text.h"
#include "tests/support/temp_directory.h"

namespace other_program {

inline constexpr DWORD DEADLINE_MS = 60'000;

inline Handle start(const std::wstring& arguments) {
  std::wstring self(MAX_PATH, L'\0');
  self.resize(GetModuleFileNameW(nullptr, self.data(), MAX_PATH));
  const auto program = std::filesystem::path(self).replace_filename(L"clipboard_program.exe");
  std::wstring command = L"\"" + program.wstring() + L"\" " + arguments;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process{};
  EXPECT_TRUE(CreateProcessW(program.c_str(), command.data(), nullptr, nullptr, FALSE, 0, nullptr,
                             nullptr, &startup, &process))
      << GetLastError();
  const Handle thread(process.hThread);
  return Handle(process.hProcess);
}

// Whoever replaces what a window of this thread has put onto the clipboard waits until that window
// has been told.
inline bool wait_for(const Handle& object) {
  const HANDLE waited = object.get();
  for (const ULONGLONG until = GetTickCount64() + DEADLINE_MS; GetTickCount64() < until;) {
    if (MsgWaitForMultipleObjectsEx(1, &waited, DEADLINE_MS, QS_SENDMESSAGE, 0) == WAIT_OBJECT_0)
      return true;
    MSG message;
    PeekMessageW(&message, nullptr, 0, 0, PM_NOREMOVE | PM_QS_SENDMESSAGE);
  }
  return false;
}

inline bool ends_well(const Handle& process) {
  DWORD code = 1;
  return wait_for(process) && GetExitCodeProcess(process.get(), &code) && code == 0;
}

inline std::wstring quoted(const std::filesystem::path& path) {
  return L" \"" + path.wstring() + L"\"";
}

// Blocks as they are on the clipboard, with the formats' numbers or names, together.
inline void copy(const std::vector<std::pair<std::string, std::string>>& blocks) {
  const TempDirectory directory;
  std::wstring arguments = L"copy";
  for (std::size_t i = 0; i < blocks.size(); ++i) {
    const auto file = directory / std::to_string(i);
    write_file(file, blocks[i].second);
    arguments += L" " + to_wide(blocks[i].first) + quoted(file);
  }
  EXPECT_TRUE(ends_well(start(arguments)));
}

// Nothing when there is none.
inline std::optional<std::string> paste(const std::string& format) {
  const TempDirectory directory;
  const auto file = directory / "pasted";
  if (!ends_well(start(L"paste " + to_wide(format) + quoted(file)))) return std::nullopt;
  return file_content(file);
}

inline std::string text_block(const std::wstring& text) {
  return {reinterpret_cast<const char*>(text.c_str()), (text.size() + 1) * sizeof(wchar_t)};
}

inline constexpr char UNICODE_TEXT[] = "13";  // CF_UNICODETEXT, CF_DIB, CF_DIBV5
inline constexpr char DIB[] = "8";
inline constexpr char DIB_V5[] = "17";
inline constexpr char PNG[] = "PNG";

inline void copy_text(const std::wstring& text) {
  copy({{UNICODE_TEXT, text_block(text)}});
}

// With its NUL.
inline std::wstring paste_text() {
  const std::string block = paste(UNICODE_TEXT).value_or("");
  std::wstring text(block.size() / sizeof(wchar_t), L'\0');
  block.copy(reinterpret_cast<char*>(text.data()), text.size() * sizeof(wchar_t));
  return text;
}

// Has the clipboard open as long as it lives.
class Holder {
 public:
  Holder() {
    const std::wstring id = std::to_wstring(GetCurrentProcessId());
    const std::wstring opened = L"lund-clipboard-opened-" + id;
    const std::wstring close = L"lund-clipboard-close-" + id;
    const Handle is_open(CreateEventW(nullptr, TRUE, FALSE, opened.c_str()));
    close_.reset(CreateEventW(nullptr, TRUE, FALSE, close.c_str()));
    program_ = start(L"hold " + opened + L" " + close);
    EXPECT_TRUE(wait_for(is_open));
  }
  ~Holder() {
    SetEvent(close_.get());
    EXPECT_TRUE(ends_well(program_));
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

 private:
  Handle close_;
  Handle program_;
};

}  // namespace other_program
