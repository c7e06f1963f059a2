#include "control/security.h"

#include <gtest/gtest.h>

#include <utility>

#include "control/windows/path_trust.h"
#include "control/windows/security_attributes.h"
#include "control/windows/token.h"
#include "tests/support/temp_directory.h"
#include "tests/support/windows/neighbour.h"

namespace {

using namespace host_service;
namespace fs = std::filesystem;

constexpr PathTest ALL_TESTS[] = {PathTest::Private, PathTest::Protected, PathTest::Ancestor};
const std::wstring INSTALLER = L"S-1-5-80-956008885-3418522649-1831038044-1853292631-2271478464";

// ---- What owner and list say

bool passes(PathTest test, const std::wstring& sddl) {
  const SecurityAttributes attributes(sddl);
  EXPECT_TRUE(attributes) << "no such descriptor";
  return trusted(attributes.descriptor(), test);
}

PACL list_of(PSECURITY_DESCRIPTOR descriptor) {
  BOOL present = FALSE, defaulted = FALSE;
  PACL list = nullptr;
  EXPECT_TRUE(GetSecurityDescriptorDacl(descriptor, &present, &list, &defaulted));
  return list;
}

TEST(PathTrust, PrivateIsTheSystemsAndAdministratorsAlone) {
  EXPECT_TRUE(passes(PathTest::Private, L"O:BAG:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"));
  EXPECT_TRUE(passes(PathTest::Private, L"O:SYG:SYD:P(A;;FA;;;SY)"));
  EXPECT_TRUE(passes(PathTest::Private, L"O:SYD:P"));
  EXPECT_FALSE(passes(PathTest::Private, L"O:BAD:P(A;;FA;;;SY)(A;;FR;;;BU)"));
  EXPECT_FALSE(passes(PathTest::Private, L"O:BAD:P(A;;FA;;;SY)(A;OICIIO;FR;;;CO)"));
  EXPECT_FALSE(passes(PathTest::Private, L"O:BAD:P(A;;FA;;;SY)(A;;FR;;;" + INSTALLER + L")"));
}

TEST(PathTrust, PrivateInheritsNothingHoweverRightItIs) {
  EXPECT_FALSE(passes(PathTest::Private, L"O:BAD:(A;;FA;;;SY)(A;;FA;;;BA)"));
  EXPECT_FALSE(passes(PathTest::Private, L"O:BAD:AI(A;ID;FA;;;SY)(A;ID;FA;;;BA)"));
}

TEST(PathTrust, ADenialHarmsNobodyAndWhatElseAListMayHoldIsRefused) {
  EXPECT_TRUE(passes(PathTest::Private, L"O:BAD:P(D;;FA;;;WD)(A;;FA;;;SY)"));
  EXPECT_TRUE(passes(PathTest::Protected, L"O:BAD:(D;;FA;;;WD)(A;;FA;;;SY)"));
  // The system's own, by its kind: of an object, a callback's, an audit's, a compound one.
  for (const int kind : {ACCESS_ALLOWED_OBJECT_ACE_TYPE, ACCESS_ALLOWED_CALLBACK_ACE_TYPE,
                         SYSTEM_AUDIT_ACE_TYPE, ACCESS_ALLOWED_COMPOUND_ACE_TYPE}) {
    const SecurityAttributes attributes(L"O:BAD:P(A;;FA;;;SY)");
    void* entry = nullptr;
    ASSERT_TRUE(GetAce(list_of(attributes.descriptor()), 0, &entry));
    static_cast<ACE_HEADER*>(entry)->AceType = static_cast<BYTE>(kind);
    for (const PathTest test : ALL_TESTS) EXPECT_FALSE(trusted(attributes.descriptor(), test));
  }
}

TEST(PathTrust, OnlyTheSystemsAdministratorsAndOutsidePrivateTheInstallersOwnPass) {
  for (const PathTest test : ALL_TESTS) {
    EXPECT_TRUE(passes(test, L"O:SYD:P(A;;FA;;;SY)"));
    EXPECT_TRUE(passes(test, L"O:BAD:P(A;;FA;;;SY)"));
    EXPECT_FALSE(passes(test, L"O:BUD:P(A;;FA;;;SY)"));
    EXPECT_FALSE(passes(test, L"O:LSD:P(A;;FA;;;SY)"));  // LocalService
    EXPECT_EQ(passes(test, L"O:" + INSTALLER + L"D:P(A;;FA;;;SY)"), test != PathTest::Private);
  }
}

TEST(PathTrust, WithoutAnOwnerOrAListNothingPasses) {
  for (const PathTest test : ALL_TESTS) {
    EXPECT_FALSE(passes(test, L"D:P(A;;FA;;;SY)"));
    EXPECT_FALSE(passes(test, L"O:SY"));
    SECURITY_DESCRIPTOR empty{};
    ASSERT_TRUE(InitializeSecurityDescriptor(&empty, SECURITY_DESCRIPTOR_REVISION));
    EXPECT_FALSE(trusted(&empty, test));
    // A list that is there and null: everybody has access.
    const SecurityAttributes systems(L"O:SYD:P(A;;FA;;;SY)");
    PSID owner = nullptr;
    BOOL defaulted = FALSE;
    ASSERT_TRUE(GetSecurityDescriptorOwner(systems.descriptor(), &owner, &defaulted));
    ASSERT_TRUE(SetSecurityDescriptorOwner(&empty, owner, FALSE));
    ASSERT_TRUE(SetSecurityDescriptorDacl(&empty, TRUE, nullptr, FALSE));
    ASSERT_TRUE(SetSecurityDescriptorControl(&empty, SE_DACL_PROTECTED, SE_DACL_PROTECTED));
    EXPECT_FALSE(trusted(&empty, test));
  }
}

TEST(PathTrust, ProtectedMayBeReadAndRunByUsersAndNotWrittenInAnyWay) {
  const auto with = [](const wchar_t* rights) {
    return passes(PathTest::Protected,
                  L"O:SYD:AI(A;ID;FA;;;SY)(A;ID;FA;;;BA)(A;ID;" + std::wstring(rights) + L";;;BU)");
  };
  EXPECT_TRUE(with(L"0x1200a9"));  // read and execute
  EXPECT_TRUE(with(L"FR"));
  // In the order of the bits: write data, append, extended attributes, delete a child, attributes,
  // delete, the list, the owner, all, write.
  for (const wchar_t* right : {L"0x2", L"0x4", L"0x10", L"0x40", L"0x100", L"0x10000", L"0x40000",
                               L"0x80000", L"0x10000000", L"0x40000000"})
    EXPECT_FALSE(with(right)) << fs::path(right);
  EXPECT_FALSE(with(L"FW"));
}

TEST(PathTrust, WhatIsOnlyHandedDownIsJudgedWhereItArrives) {
  const std::wstring handed_down = L"O:SYD:(A;;FA;;;SY)(A;OICIIO;FA;;;BU)";
  EXPECT_TRUE(passes(PathTest::Protected, handed_down));
  EXPECT_TRUE(passes(PathTest::Ancestor, handed_down));
  EXPECT_FALSE(passes(PathTest::Private, handed_down));
}

TEST(PathTrust, TheInstallerMayWriteButInWhatIsPrivate) {
  const std::wstring writes = L"O:SYD:P(A;;FA;;;SY)(A;;FA;;;" + INSTALLER + L")";
  EXPECT_TRUE(passes(PathTest::Protected, writes));
  EXPECT_TRUE(passes(PathTest::Ancestor, writes));
  EXPECT_FALSE(passes(PathTest::Private, writes));
}

// The root of a volume as Windows makes it: users may make directories there and own what they
// make.
TEST(PathTrust, AVolumesRootIsAnAncestorThoughUsersMakeDirectoriesThere) {
  const std::wstring root = L"O:" + INSTALLER +
                            L"D:PAI(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)(A;OICI;0x1200a9;;;BU)"
                            L"(A;CI;LC;;;BU)(A;CIIO;DC;;;BU)(A;OICIIO;FA;;;CO)";
  EXPECT_TRUE(passes(PathTest::Ancestor, root));
  EXPECT_FALSE(passes(PathTest::Protected, root));
  for (const wchar_t* right :
       {L"0x40", L"0x10000", L"0x40000", L"0x80000", L"0x10000000", L"0x40000000"})
    EXPECT_FALSE(passes(PathTest::Ancestor, root + L"(A;;" + right + L";;;BU)")) << fs::path(right);
  for (const wchar_t* right : {L"0x2", L"0x4", L"0x10", L"0x100"})
    EXPECT_TRUE(passes(PathTest::Ancestor, root + L"(A;;" + right + L";;;BU)")) << fs::path(right);
}

// ---- Paths

class Paths : public testing::Test {
 protected:
  TempDirectory directory_;
};

TEST_F(Paths, OnlyTheLastComponentMayBeMissing) {
  EXPECT_TRUE(no_reparse_components(directory_.path()));
  EXPECT_TRUE(no_reparse_components(directory_ / "missing"));
  EXPECT_FALSE(no_reparse_components(directory_ / "missing\\file"));
  EXPECT_FALSE(no_reparse_components(directory_ / "missing/file"));
  EXPECT_TRUE(no_reparse_components("C:\\"));
  for (const PathTest test : ALL_TESTS) EXPECT_FALSE(check_path(directory_ / "missing", test));
}

TEST_F(Paths, ARelativeOrNetworkPathFails) {
  for (const char* path : {"", "f", ".", "C:", "C:f", "C:/windows", "\\windows",
                           "\\\\server\\share\\file", "\\\\?\\C:\\windows", "\\\\.\\C:\\windows"}) {
    EXPECT_FALSE(no_reparse_components(path)) << path;
    EXPECT_FALSE(protected_ancestors(path)) << path;
    EXPECT_FALSE(create_private_directory(path)) << path;
    for (const PathTest test : ALL_TESTS) EXPECT_FALSE(check_path(path, test)) << path;
  }
}

TEST_F(Paths, ALinkAnywhereOnThePathFailsEveryTest) {
  fs::create_directories(directory_ / "d" / "e");
  const fs::path link = directory_ / "link";
  if (!CreateSymbolicLinkW(link.c_str(), (directory_ / "d").c_str(), SYMBOLIC_LINK_FLAG_DIRECTORY))
    GTEST_SKIP() << "no links here (error " << GetLastError() << ")";
  for (const fs::path& path : {link, link / "e"}) {
    EXPECT_FALSE(no_reparse_components(path)) << path;
    EXPECT_FALSE(protected_ancestors(path)) << path;
    EXPECT_FALSE(create_private_directory(path)) << path;
    for (const PathTest test : ALL_TESTS) EXPECT_FALSE(check_path(path, test)) << path;
  }
}

// The user's own: no test lets it pass, and what it prepared isn't taken for private.
TEST_F(Paths, AnOrdinaryUsersDirectoryIsNeitherPrivateNorTakenOver) {
  const fs::path path = directory_ / "prepared";
  fs::create_directory(path);
  EXPECT_FALSE(check_path(path, PathTest::Private));
  EXPECT_FALSE(create_private_directory(path));
  EXPECT_FALSE(protected_ancestors(path / "file"));
}

TEST_F(Paths, APrivateDirectoryIsMadeWhereThereIsNone) {
  const fs::path path = directory_ / "made";
  EXPECT_TRUE(create_private_directory(path));
  EXPECT_TRUE(check_path(path, PathTest::Private));
  EXPECT_TRUE(create_private_directory(path));
  EXPECT_FALSE(create_private_directory(directory_ / "missing" / "made"));
}

TEST_F(Paths, APrivateDirectoryIsNotMadeBelowAMissingOne) {
  EXPECT_FALSE(create_private_directory(directory_ / "missing" / "made"));
  EXPECT_FALSE(fs::exists(directory_ / "missing"));
}

// ---- Processes

TEST(Processes, ThereIsNoneWithoutAnIdOrBehindOneThatEnded) {
  EXPECT_FALSE(Process());
  EXPECT_FALSE(Process().alive());
  EXPECT_EQ(Process().id(), 0u);
  EXPECT_FALSE(system_process(Process(), nullptr));
  EXPECT_FALSE(elevated_admin_process(Process()));
  EXPECT_FALSE(Process::open(0));
  EXPECT_FALSE(Process::open(UINT32_MAX));
  Neighbour neighbour;
  neighbour.end();
  EXPECT_FALSE(Process::open(neighbour.id()));  // though somebody still holds it
}

TEST(Processes, AnIdIsWholeThoughTheSystemTakesOthersForIt) {
  const std::uint32_t id = Process::current().id();
  EXPECT_EQ(id, GetCurrentProcessId());
  for (std::uint32_t other = id + 1; other < id + 4; ++other)
    EXPECT_NE(Process::open(other).id(), id);
}

TEST(Processes, OneThatHasEndedIsKnownAtOnce) {
  Neighbour neighbour;
  const Process process = Process::open(neighbour.id());
  EXPECT_EQ(process.id(), neighbour.id());
  EXPECT_TRUE(process.alive());
  neighbour.end();
  EXPECT_EQ(WaitForSingleObject(reinterpret_cast<HANDLE>(process.native_handle()), 10'000),
            WAIT_OBJECT_0);
  EXPECT_TRUE(process);
  EXPECT_FALSE(process.alive());
  EXPECT_FALSE(system_process(process, nullptr));
  EXPECT_FALSE(elevated_admin_process(process));
}

TEST(Processes, AReferenceMovesWhole) {
  Process first = Process::current();
  Process second = std::move(first);
  EXPECT_FALSE(first);
  EXPECT_TRUE(second.alive());
  first = std::move(second);
  EXPECT_TRUE(first.alive());
}

TEST(Processes, AnOrdinaryUsersIsNotTheSystems) {
  Neighbour neighbour;
  std::uint32_t session = 77;
  const bool system = system_process(Process::current(), nullptr);
  EXPECT_EQ(system_process(Process::open(neighbour.id()), &session), system);
  if (!system) {
    EXPECT_EQ(session, 77u);
  }
}

TEST(Processes, LocalSystemsIsTheSystemsInTheSessionOfItsToken) {
  Neighbour neighbour(As::System);
  if (!neighbour) GTEST_SKIP() << Neighbour::NO_SYSTEM;
  const Process process = Process::open(neighbour.id());
  DWORD own_session = 0;
  ASSERT_TRUE(ProcessIdToSessionId(GetCurrentProcessId(), &own_session));
  std::uint32_t session = 77;
  EXPECT_TRUE(system_process(process, &session));
  EXPECT_TRUE(system_process(process, nullptr));
  EXPECT_EQ(session, own_session);
  neighbour.end();
  EXPECT_FALSE(system_process(process, &session));
}

// ---- Privileges

TEST(Privileges, OneThatTheTokenHoldsCanBeSwitchedOnAndNoOther) {
  EXPECT_FALSE(enable_privilege(L"SeNoSuchPrivilege"));
  EXPECT_FALSE(enable_privilege(SE_CREATE_TOKEN_NAME));
  EXPECT_TRUE(enable_privilege(SE_SHUTDOWN_NAME));
}

}  // namespace
