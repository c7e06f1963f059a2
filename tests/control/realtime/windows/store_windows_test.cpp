// The store on Windows: where it lies, whose its files are, and what they look like to the system's
// own data protection.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <string>
#include <thread>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/store_platform.h"
#include "control/sysinfo.h"
#include "control/windows/store_attributes.h"
#include "control/windows/wide_text.h"
#include "tests/support/store_values.h"
#include "tests/support/temp_directory.h"
// After what handles.h includes.
#include <dpapi.h>

namespace {

namespace fs = std::filesystem;
using keystore::Machine;
using keystore::User;
using keystore::internal::reset_for_test;

fs::path folder_of(const wchar_t* variable) {
  const wchar_t* const value = _wgetenv(variable);
  return value != nullptr ? fs::path(value) : fs::path();
}

class WindowsStore : public testing::Test {
 protected:
  void SetUp() override { reset_for_test(User, directory_.path()); }
  void TearDown() override { reset_for_test(User, {}); }

  TempDirectory directory_;
};

// ---- Its place

TEST_F(WindowsStore, OfAUserLiesInTheRoamingProfile) {
  reset_for_test(User, {});
  ASSERT_NE(folder_of(L"APPDATA"), "");
  EXPECT_EQ(keystore::hostStoreDirectory(), folder_of(L"APPDATA") / "Lunderhaze");
  EXPECT_EQ(app_data_dir(), folder_of(L"APPDATA") / "Lunderhaze");
  EXPECT_TRUE(fs::is_directory(app_data_dir()));
}

TEST_F(WindowsStore, OfTheMachineLiesBelowProgramData) {
  reset_for_test(Machine, {});
  ASSERT_NE(folder_of(L"ProgramData"), "");
  EXPECT_EQ(keystore::hostStoreDirectory(), folder_of(L"ProgramData") / "Lunderhaze" / "Host");
}

TEST_F(WindowsStore, APathMayHoldAnyCharacter) {
  const fs::path place = directory_.path() / L"\u00fc \u6f22 \U0001F5A5";
  reset_for_test(User, place);
  ASSERT_TRUE(keystore::writeHostFile("settings", "x", 1));
  EXPECT_EQ(file_content(place / "settings"), "x");
  bool created = false;
  keystore::load_or_create_identity(&created);
  EXPECT_TRUE(created);
}

TEST_F(WindowsStore, DirectoriesAreMadeOneInAnother) {
  const fs::path inner = directory_.path() / "a" / "b" / "c";
  EXPECT_TRUE(store_platform::make_directory(inner));
  EXPECT_TRUE(store_platform::make_directory(inner));
  EXPECT_TRUE(fs::is_directory(inner));
  write_file(directory_ / "file", "");
  EXPECT_FALSE(store_platform::make_directory(directory_ / "file"));
  EXPECT_FALSE(store_platform::make_directory(directory_.path() / "file" / "below"));
  EXPECT_FALSE(store_platform::make_directory({}));
}

// ---- Whose its files are

std::string text_of(const SecurityAttributes& attributes) {
  LocalMemory<wchar_t> text;
  if (!ConvertSecurityDescriptorToStringSecurityDescriptorW(
          attributes.descriptor(), SDDL_REVISION_1,
          OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION,
          text.receive(), nullptr))
    return "no text";
  return to_utf8(text.get());
}

TEST_F(WindowsStore, AMachinesFileIsTheSystemsAndTheAdministratorsAlone) {
  EXPECT_EQ(text_of(store_file_attributes(Machine)), "O:BAG:BAD:P(A;;FA;;;SY)(A;;FA;;;BA)");
}

TEST_F(WindowsStore, AUsersFileIsTheirsAndTheSystemsAlone) {
  const std::string text = text_of(store_file_attributes(User));
  EXPECT_TRUE(text.starts_with("D:P(A;;FA;;;S-1-5-")) << text;
  EXPECT_TRUE(text.ends_with(")(A;;FA;;;SY)")) << text;
  const std::string directory = text_of(user_directory_attributes());
  EXPECT_TRUE(directory.starts_with("D:P(A;OICI;FA;;;S-1-5-")) << directory;
  EXPECT_TRUE(directory.ends_with(")(A;OICI;FA;;;SY)")) << directory;
}

TEST_F(WindowsStore, WithoutADescriptorThereIsTheSystemsDefault) {
  SecurityAttributes none;
  EXPECT_FALSE(none);
  ASSERT_NE(none.get(), nullptr);
  EXPECT_EQ(none.get()->lpSecurityDescriptor, nullptr);
  EXPECT_FALSE(SecurityAttributes(L"D:P(A;;FA;;;nobody at all)"));
}

TEST_F(WindowsStore, ANewFileIsMadeInEitherScopeAndNeverOverAnother) {
  for (const auto scope : {User, Machine}) {
    reset_for_test(scope, directory_.path());
    const fs::path file = directory_ / ("new-" + std::to_string(scope));
    EXPECT_TRUE(store_platform::create_file(file, "first", 5));
    EXPECT_FALSE(store_platform::create_file(file, "second", 6));
    EXPECT_EQ(file_content(file), "first");
  }
}

// ---- Its secrets

TEST_F(WindowsStore, ASecretFileIsABlobOfTheSystemsDataProtection) {
  const std::string blob = password_blob();
  ASSERT_TRUE(keystore::save_password_blob(blob));
  std::string sealed = file_content(directory_ / "pairing_password");
  DATA_BLOB in{static_cast<DWORD>(sealed.size()), reinterpret_cast<BYTE*>(sealed.data())};
  DATA_BLOB out{};
  LocalMemory<wchar_t> description;
  ASSERT_TRUE(CryptUnprotectData(&in, description.receive(), nullptr, nullptr, nullptr,
                                 CRYPTPROTECT_UI_FORBIDDEN, &out));
  const LocalMemory<BYTE> owner(out.pbData);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(out.pbData), out.cbData), blob);
  EXPECT_STREQ(description.get(), L"Lunderhaze");
}

TEST_F(WindowsStore, SealingTheSameTwiceGivesDifferentFiles) {
  ASSERT_TRUE(keystore::save_password_blob("the same"));
  const std::string first = file_content(directory_ / "pairing_password");
  ASSERT_TRUE(keystore::save_password_blob("the same"));
  EXPECT_NE(file_content(directory_ / "pairing_password"), first);
}

TEST_F(WindowsStore, EachScopeOpensWhatItSealed) {
  for (const auto scope : {User, Machine}) {
    std::string sealed, plain;
    ASSERT_TRUE(store_platform::protect(scope, directory_.path(), "any", "a secret", &sealed));
    EXPECT_EQ(sealed.find("a secret"), std::string::npos);
    ASSERT_TRUE(store_platform::unprotect(scope, directory_.path(), "any", sealed, &plain));
    EXPECT_EQ(plain, "a secret");
  }
}

TEST_F(WindowsStore, WhatNobodySealedDoesNotOpen) {
  std::string sealed, plain = "former";
  ASSERT_TRUE(store_platform::protect(User, directory_.path(), "any", "a secret", &sealed));
  for (const std::string& wrong :
       {std::string(), std::string("x"), std::string(4096, 'x'), sealed.substr(0, 40),
        sealed.substr(0, sealed.size() - 1), sealed.substr(1)}) {
    EXPECT_FALSE(store_platform::unprotect(User, directory_.path(), "any", wrong, &plain))
        << wrong.size();
    EXPECT_EQ(plain, "");
  }
}

// DPAPI binds a blob to no file: the text inside tells.
TEST_F(WindowsStore, OneSecretInThePlaceOfAnotherIsMalformed) {
  ASSERT_TRUE(keystore::save_password_blob(password_blob()));
  for (const char* name : {"relays", "identity"})
    fs::copy_file(directory_ / "pairing_password", directory_ / name);
  EXPECT_EQ(keystore::load_relays().count, 0);
  bool created = false;
  keystore::load_or_create_identity(&created);
  EXPECT_TRUE(created);
}

// ---- Files that others hold open

Handle hold(const fs::path& path, DWORD sharing) {
  return owned_file(CreateFileW(path.c_str(), GENERIC_READ, sharing, nullptr, OPEN_EXISTING,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
}

bool has_temporary_file(const fs::path& directory) {
  for (const auto& entry : fs::directory_iterator(directory)) {
    if (entry.path().filename().string().find(".tmp-") != std::string::npos) return true;
  }
  return false;
}

TEST_F(WindowsStore, AFileThatAScannerHasOpenForAMomentIsReplacedAllTheSame) {
  ASSERT_TRUE(keystore::writeHostFile("settings", "old", 3));
  Handle scanner = hold(directory_ / "settings", FILE_SHARE_READ);
  ASSERT_TRUE(scanner);
  std::atomic<bool> written = false;
  std::thread letting_go([&] {
    while (!written && !has_temporary_file(directory_.path())) Sleep(1);
    Sleep(10);  // so that the replacement meets it
    scanner.reset();
  });
  EXPECT_TRUE(keystore::writeHostFile("settings", "new", 3));
  written = true;
  letting_go.join();
  EXPECT_EQ(file_content(directory_ / "settings"), "new");
}

TEST_F(WindowsStore, OneThatStaysOpenFailsTheSaveAndKeepsItsContent) {
  ASSERT_TRUE(keystore::writeHostFile("settings", "old", 3));
  const Handle reader = hold(directory_ / "settings", FILE_SHARE_READ);
  EXPECT_FALSE(keystore::writeHostFile("settings", "new", 3));
  EXPECT_EQ(file_content(directory_ / "settings"), "old");
  EXPECT_EQ(entry_count(directory_.path()), 1u);
}

TEST_F(WindowsStore, OneThatAnotherHasForItselfIsUnreadableAndNotMissing) {
  ASSERT_TRUE(keystore::writeHostFile("settings", "old", 3));
  const Handle owner = hold(directory_ / "settings", 0);
  std::string bytes;
  EXPECT_EQ(keystore::internal::read_plain("settings", &bytes), store_platform::Read::Failed);
  EXPECT_EQ(bytes, "");
}

TEST_F(WindowsStore, AMissingFileOrDirectoryIsMissing) {
  std::string bytes;
  EXPECT_EQ(store_platform::read_file(directory_ / "none", 100, &bytes),
            store_platform::Read::Missing);
  EXPECT_EQ(store_platform::read_file(directory_.path() / "none" / "none", 100, &bytes),
            store_platform::Read::Missing);
  EXPECT_TRUE(store_platform::remove_file(directory_ / "none"));
  EXPECT_TRUE(store_platform::remove_file(directory_.path() / "none" / "none"));
}

}  // namespace
