#include "control/autostart.h"

#include <gtest/gtest.h>

#include <optional>
#include <vector>

#include "control/sysinfo.h"
#include "control/windows/handles.h"
#include "control/windows/wide_text.h"

namespace {

constexpr const wchar_t* RUN_KEY = L"Software\\Microsoft\\Windows\\CurrentVersion\\Run";
constexpr const wchar_t* RUN_VALUE = L"Lunderhaze";

// The registry's own value, whatever its type, put back when the test is over.
class Autostart : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(RegCreateKeyExW(HKEY_CURRENT_USER, RUN_KEY, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                              key_.receive(), nullptr),
              ERROR_SUCCESS);
    former_ = stored();
    RegDeleteValueW(key_.get(), RUN_VALUE);
  }
  void TearDown() override {
    RegDeleteValueW(key_.get(), RUN_VALUE);
    if (former_) put(*former_);
  }

  void put(const std::wstring& text) const {
    ASSERT_EQ(RegSetValueExW(key_.get(), RUN_VALUE, 0, REG_SZ,
                             reinterpret_cast<const BYTE*>(text.c_str()),
                             static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
              ERROR_SUCCESS);
  }
  std::optional<std::wstring> stored() const {
    wchar_t text[4096];
    DWORD bytes = sizeof(text);
    if (RegGetValueW(key_.get(), nullptr, RUN_VALUE, RRF_RT_REG_SZ, nullptr, text, &bytes) !=
        ERROR_SUCCESS)
      return std::nullopt;
    return text;
  }
  std::wstring own() const { return L"\"" + exe_path().native() + L"\""; }

  RegistryKey key_;
  std::optional<std::wstring> former_;
  std::string text_ = "untouched";
};

TEST_F(Autostart, IsOffWithoutAValueAndOnWithOurs) {
  EXPECT_FALSE(autostart_enabled());
  EXPECT_TRUE(set_autostart(true, &text_));
  EXPECT_EQ(text_, "");
  EXPECT_TRUE(autostart_enabled());
  EXPECT_EQ(stored(), own());
  EXPECT_TRUE(set_autostart(true));
  EXPECT_TRUE(set_autostart(false, &text_));
  EXPECT_EQ(text_, "");
  EXPECT_FALSE(autostart_enabled());
  EXPECT_EQ(stored(), std::nullopt);
}

TEST_F(Autostart, SwitchingOffWithoutAValueIsASuccess) {
  EXPECT_TRUE(set_autostart(false, &text_));
  EXPECT_EQ(text_, "");
}

TEST_F(Autostart, IsOnWithArgumentsBehindOurPath) {
  put(own() + L" --console");
  EXPECT_TRUE(autostart_enabled());
}

TEST_F(Autostart, AValueForAnotherExecutableCountsAsOffAndIsReplacedWithALine) {
  put(L"\"C:\\other \u00fc\\Lunderhaze.exe\"");
  EXPECT_FALSE(autostart_enabled());
  EXPECT_TRUE(set_autostart(true, &text_));
  EXPECT_EQ(text_,
            "the value \"Lunderhaze\" of the registry's Run key was replaced: it was an entry that "
            "started \"C:\\other \xC3\xBC\\Lunderhaze.exe\"");
  EXPECT_EQ(stored(), own());
}

TEST_F(Autostart, AForeignValueIsRemovedWithALine) {
  put(L"other.exe");
  EXPECT_TRUE(set_autostart(false, &text_));
  EXPECT_EQ(text_,
            "the value \"Lunderhaze\" of the registry's Run key was removed: it was an entry that "
            "started other.exe");
  EXPECT_EQ(stored(), std::nullopt);
}

TEST_F(Autostart, AValueOfAnotherTypeCountsAsOffAndIsReplaced) {
  const DWORD number = 1;
  ASSERT_EQ(RegSetValueExW(key_.get(), RUN_VALUE, 0, REG_DWORD,
                           reinterpret_cast<const BYTE*>(&number), sizeof(number)),
            ERROR_SUCCESS);
  EXPECT_FALSE(autostart_enabled());
  EXPECT_TRUE(set_autostart(true, &text_));
  EXPECT_EQ(text_,
            "the value \"Lunderhaze\" of the registry's Run key was replaced: it was something "
            "that could not be read");
  EXPECT_EQ(stored(), own());
}

TEST_F(Autostart, AValueLongerThan1040BytesCountsAsOff) {
  const std::wstring command = own() + L" ";
  constexpr std::size_t CHARACTERS = 1040 / sizeof(wchar_t);
  put(command + std::wstring(CHARACTERS - 1 - command.size(), L'x'));
  EXPECT_TRUE(autostart_enabled());
  put(command + std::wstring(CHARACTERS - command.size(), L'x'));
  EXPECT_FALSE(autostart_enabled());
}

}  // namespace
