// What is asked of Windows to know whom to trust: processes, tokens, privileges, and paths.
#include <gmock/gmock.h>

#include "control/security.h"
#include "control/windows/token.h"
#include "tests/support/temp_directory.h"
#include "tests/support/windows/machine/system_calls.h"

namespace {

using namespace host_service;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
namespace fs = std::filesystem;

constexpr PathTest ALL_TESTS[] = {PathTest::Private, PathTest::Protected, PathTest::Ancestor};
constexpr char DEEP[] = "C:\\windows\\system32\\drivers";
// To DEEP, each.
const std::string COMPONENTS[] = {"C:\\windows", "C:\\windows\\system32", DEEP};

std::string looked_at(const std::string& path) {
  return "GetFileAttributesW " + path;
}

class TrustCalls : public testing::Test {
 protected:
  SystemCalls calls_{{SystemCalls::Of::Trust}};
};

// ---- Processes

TEST_F(TrustCalls, AProcessIsOpenedToBeAskedAndWaitedForAlone) {
  const std::uint32_t id = GetCurrentProcessId();
  EXPECT_EQ(Process::open(id).id(), id);
  EXPECT_THAT(calls_.take(),
              ElementsAre("OpenProcess access 101000 inherit 0 " + std::to_string(id)));
  calls_.fail("OpenProcess", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(Process::open(id));
}

TEST_F(TrustCalls, ThisProcessNeedsNotBeOpened) {
  EXPECT_TRUE(Process::current().alive());
  EXPECT_THAT(calls_.take(), IsEmpty());
}

TEST_F(TrustCalls, WhoseAProcessIsItsTokensUserSays) {
  system_process(Process::current(), nullptr);
  const std::vector<std::string> asked = calls_.take();
  ASSERT_GE(asked.size(), 2u);
  EXPECT_EQ(asked[0], "OpenProcessToken access 8");
  EXPECT_EQ(asked[1], "GetTokenInformation 1");
  for (const char* call : {"OpenProcessToken", "GetTokenInformation"}) {
    calls_.pass();
    calls_.fail(call, ERROR_ACCESS_DENIED);
    EXPECT_FALSE(system_process(Process::current(), nullptr)) << call;
    EXPECT_FALSE(elevated_admin_process(Process::current())) << call;
  }
}

class Administrator : public TrustCalls {
 protected:
  Administrator() { become(1, 1); }
  void become(unsigned long elevated, unsigned long member) {
    calls_.answer("GetTokenInformation 20", elevated);
    calls_.answer("CheckTokenMembership administrators", member);
  }
  static bool is_one() { return elevated_admin_process(Process::current()); }
};

TEST_F(Administrator, IsOneWhoseTokenIsElevatedAndAMemberOfTheGroup) {
  EXPECT_TRUE(is_one());
  EXPECT_THAT(calls_.take(),
              ElementsAre("OpenProcessToken access a", "GetTokenInformation 20",
                          "DuplicateToken level 1", "CheckTokenMembership administrators"));
  become(1, 0);
  EXPECT_FALSE(is_one());
}

TEST_F(Administrator, IsNoneWithoutElevationWhateverTheGroup) {
  become(0, 1);
  EXPECT_FALSE(is_one());
  EXPECT_THAT(calls_.take(), ElementsAre("OpenProcessToken access a", "GetTokenInformation 20"));
}

TEST_F(Administrator, IsNoneWhereItCannotBeTold) {
  for (const char* call : {"DuplicateToken", "CheckTokenMembership"}) {
    calls_.pass();
    become(1, 1);
    calls_.fail(call, ERROR_ACCESS_DENIED);
    EXPECT_FALSE(is_one()) << call;
  }
}

// ---- Privileges

TEST_F(TrustCalls, APrivilegeThatWasNotAssignedIsToldByTheLastErrorAlone) {
  SetLastError(ERROR_INVALID_PARAMETER);
  EXPECT_TRUE(enable_privilege(SE_SHUTDOWN_NAME));
  EXPECT_THAT(calls_.take(),
              ElementsAre("OpenProcessToken access 28",
                          "AdjustTokenPrivileges count 1 attributes 2 last error 0"));
  calls_.fail("AdjustTokenPrivileges", ERROR_NOT_ALL_ASSIGNED);
  EXPECT_FALSE(enable_privilege(SE_SHUTDOWN_NAME));
}

// ---- Paths

TEST_F(TrustCalls, APathIsLookedAtFromTheShortestComponentOn) {
  EXPECT_TRUE(no_reparse_components(DEEP));
  EXPECT_THAT(calls_.take(), ElementsAre(looked_at(COMPONENTS[0]), looked_at(COMPONENTS[1]),
                                         looked_at(COMPONENTS[2])));
}

TEST_F(TrustCalls, AJunctionAnywhereOnThePathFailsEveryTestBeforeADescriptorIsRead) {
  for (const std::string& component : COMPONENTS) {
    calls_.pass();
    calls_.answer(looked_at(component), FILE_ATTRIBUTE_DIRECTORY | FILE_ATTRIBUTE_REPARSE_POINT);
    EXPECT_FALSE(no_reparse_components(DEEP)) << component;
    EXPECT_EQ(calls_.take().back(), looked_at(component));
    EXPECT_FALSE(protected_ancestors(DEEP)) << component;
    EXPECT_FALSE(create_private_directory(DEEP)) << component;
    for (const PathTest test : ALL_TESTS) EXPECT_FALSE(check_path(DEEP, test)) << component;
    const std::vector<std::string> asked = calls_.take();
    EXPECT_THAT(asked, Not(Contains(StartsWith("GetNamedSecurityInfoW"))));
    EXPECT_THAT(asked, Not(Contains(StartsWith("CreateDirectoryW"))));
  }
}

TEST_F(TrustCalls, OfAComponentThatCannotBeLookedAtOnlyTheLastMayBeMissing) {
  for (const DWORD error : {ERROR_FILE_NOT_FOUND, ERROR_PATH_NOT_FOUND}) {
    calls_.fail("GetFileAttributesW", error);
    EXPECT_TRUE(no_reparse_components("C:\\windows")) << error;
    EXPECT_FALSE(no_reparse_components(DEEP)) << error;
  }
  for (const DWORD error : {ERROR_ACCESS_DENIED, ERROR_SHARING_VIOLATION, ERROR_INVALID_NAME,
                            ERROR_NOT_READY, ERROR_CANT_RESOLVE_FILENAME}) {
    calls_.fail("GetFileAttributesW", error);
    EXPECT_FALSE(no_reparse_components("C:\\windows")) << error;
  }
}

TEST_F(TrustCalls, ADescriptorThatCannotBeReadPassesNoTest) {
  check_path(DEEP, PathTest::Protected);
  EXPECT_EQ(calls_.take().back(),
            std::string("GetNamedSecurityInfoW ") + DEEP + " type 1 information 5");
  calls_.fail("GetNamedSecurityInfoW", ERROR_ACCESS_DENIED);
  for (const PathTest test : ALL_TESTS) EXPECT_FALSE(check_path(DEEP, test));
}

TEST_F(TrustCalls, APrivateDirectoryIsMadeForTheSystemAndAdministratorsAndMayBeThere) {
  const TempDirectory directory;
  const fs::path path = directory / "made";
  calls_.take();
  EXPECT_TRUE(create_private_directory(path));
  EXPECT_THAT(calls_.take(),
              Contains("CreateDirectoryW O:BAG:BAD:P(A;OICI;FA;;;SY)(A;OICI;FA;;;BA)"));
  EXPECT_TRUE(create_private_directory(path));
  calls_.fail("CreateDirectoryW", ERROR_ACCESS_DENIED);
  EXPECT_FALSE(create_private_directory(path));
}

}  // namespace
