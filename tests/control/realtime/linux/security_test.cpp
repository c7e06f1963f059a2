#include "control/security.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "control/linux/display_session.h"
#include "control/linux/path_trust.h"
#include "tests/support/child_process.h"
#include "tests/support/linux/access_list.h"
#include "tests/support/linux/environment.h"
#include "tests/support/linux/forked.h"
#include "tests/support/temp_directory.h"

namespace {

using namespace host_service;
namespace fs = std::filesystem;

constexpr PathTest ALL_TESTS[] = {PathTest::Private, PathTest::Protected, PathTest::Ancestor};

bool is_root() {
  return geteuid() == 0;
}

// ---- What owner, mode and list say

bool directory_passes(PathTest test, mode_t mode, uid_t owner = 0, bool has_acl = false) {
  return trusted({owner, S_IFDIR | mode, has_acl}, test);
}

TEST(PathTrust, PrivateIsRootsAloneWithoutAListOfOthers) {
  EXPECT_TRUE(directory_passes(PathTest::Private, 0700));
  EXPECT_TRUE(trusted({0, S_IFREG | 0600, false}, PathTest::Private));
  for (const mode_t bit : {0040u, 0020u, 0010u, 0004u, 0002u, 0001u})
    EXPECT_FALSE(directory_passes(PathTest::Private, 0700 | bit)) << bit;
  EXPECT_FALSE(directory_passes(PathTest::Private, 0700, 0, true));
  EXPECT_FALSE(directory_passes(PathTest::Private, 01777));
}

TEST(PathTrust, ProtectedMayBeReadAndRunByAllAndWrittenByRootAlone) {
  EXPECT_TRUE(directory_passes(PathTest::Protected, 0755));
  EXPECT_TRUE(directory_passes(PathTest::Protected, 0755, 0, true));
  EXPECT_FALSE(directory_passes(PathTest::Protected, 0775));
  EXPECT_FALSE(directory_passes(PathTest::Protected, 0757));
  EXPECT_FALSE(directory_passes(PathTest::Protected, 01777));
}

TEST(PathTrust, AnAncestorMayLetAllMakeThingsThatOnlyTheyCanRename) {
  EXPECT_TRUE(directory_passes(PathTest::Ancestor, 0755));
  EXPECT_TRUE(directory_passes(PathTest::Ancestor, 01777));
  EXPECT_FALSE(directory_passes(PathTest::Ancestor, 0777));
  EXPECT_FALSE(directory_passes(PathTest::Ancestor, 0775));
  EXPECT_FALSE(trusted({0, S_IFREG | 01666, false}, PathTest::Ancestor));
}

TEST(PathTrust, NothingOfAnotherUserPassesAndNoLink) {
  for (const PathTest test : ALL_TESTS) {
    EXPECT_FALSE(directory_passes(test, 0700, 1000));
    EXPECT_FALSE(trusted({0, S_IFLNK | 0700, false}, test));
  }
}

TEST(DisplaySession, IsTheDisplaysNumberAndOne) {
  EXPECT_EQ(session_of_display(":0"), 1u);
  EXPECT_EQ(session_of_display(":99.1"), 100u);
  EXPECT_EQ(session_of_display("localhost:10.0"), 11u);
  EXPECT_EQ(session_of_display("[::1]:2"), 3u);
}

TEST(DisplaySession, WhatNamesNoDisplayIsNoSession) {
  for (const char* none : {"", "0", ":", ":x", ":1x", ":1.", ":1.x", ":1.0x", ":-1", ": 1",
                           ":4294967295", ":4294967296", "wayland-0"})
    EXPECT_EQ(session_of_display(none), 0u) << none;
}

// ---- Paths

class Paths : public testing::Test {
 protected:
  void SetUp() override {
    if (!is_root()) GTEST_SKIP() << "only root's own files pass";
    chmod(directory_.path().c_str(), 0700);
  }
  fs::path make(const std::string& name, mode_t mode) {
    const fs::path path = directory_ / name;
    EXPECT_EQ(mkdir(path.c_str(), 0700), 0);
    EXPECT_EQ(chmod(path.c_str(), mode), 0);
    return path;
  }

  TempDirectory directory_;
};

TEST_F(Paths, ADirectoryOfRootsAloneIsPrivateProtectedAndAnAncestor) {
  const fs::path path = make("d", 0700);
  for (const PathTest test : ALL_TESTS) EXPECT_TRUE(check_path(path, test));
  EXPECT_TRUE(protected_path(path, true));
  EXPECT_TRUE(protected_path(path, false));
}

TEST_F(Paths, AFileThatUsersMayReadAndRunIsProtectedUntilTheyMayWriteIt) {
  const fs::path path = directory_ / "f";
  write_file(path, "x");
  chmod(path.c_str(), 0755);
  EXPECT_TRUE(protected_path(path, false));
  EXPECT_FALSE(protected_path(path, true));
  for (const mode_t mode : {0775, 0757}) {
    chmod(path.c_str(), mode);
    EXPECT_FALSE(protected_path(path, false)) << mode;
  }
}

TEST_F(Paths, APrivateDirectoryHasNoAccessListEvenOneThatGrantsNothing) {
  const fs::path path = make("d", 0700);
  if (!set_access_list(path, ACCESS_LIST, 7, 7, 0))
    GTEST_SKIP() << "no access lists here: " << std::strerror(errno);
  struct stat status {};
  ASSERT_EQ(stat(path.c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777, 0700u);
  EXPECT_FALSE(check_path(path, PathTest::Private));
  EXPECT_TRUE(check_path(path, PathTest::Protected));
}

TEST_F(Paths, APrivateDirectoryHandsNoAccessListDown) {
  const fs::path path = make("d", 0700);
  if (!set_access_list(path, DEFAULT_ACCESS_LIST, 7, 7, 7))
    GTEST_SKIP() << "no access lists here: " << std::strerror(errno);
  EXPECT_FALSE(check_path(path, PathTest::Private));
}

TEST_F(Paths, AnAccessListThatGrantsWritingEndsProtection) {
  const fs::path path = make("d", 0700);
  if (!set_access_list(path, ACCESS_LIST, 7, 5, 5))
    GTEST_SKIP() << "no access lists here: " << std::strerror(errno);
  EXPECT_TRUE(check_path(path, PathTest::Protected));
  ASSERT_TRUE(set_access_list(path, ACCESS_LIST, 7, 7, 7));
  EXPECT_FALSE(check_path(path, PathTest::Protected));
  EXPECT_FALSE(check_path(path, PathTest::Ancestor));
}

TEST_F(Paths, AStickyDirectoryInWhichAllMakeThingsIsAnAncestorAndNotProtected) {
  const fs::path sticky = make("sticky", 01777), open_to_all = make("open", 0777);
  EXPECT_TRUE(check_path(sticky, PathTest::Ancestor));
  EXPECT_FALSE(check_path(sticky, PathTest::Protected));
  EXPECT_FALSE(check_path(open_to_all, PathTest::Ancestor));
}

TEST_F(Paths, WhatAnotherUserOwnsPassesNoTest) {
  const fs::path path = make("d", 0700);
  ASSERT_EQ(chown(path.c_str(), ORDINARY_USER, 0), 0);
  for (const PathTest test : ALL_TESTS) EXPECT_FALSE(check_path(path, test));
}

TEST_F(Paths, ASymbolicLinkAnywhereOnThePathFailsEveryTest) {
  make("d", 0700);
  const fs::path inner = make("d/e", 0700);
  fs::create_directory_symlink(directory_ / "d", directory_ / "to_d");
  fs::create_directory_symlink(inner, directory_ / "d/to_e");
  for (const fs::path& path : {directory_ / "to_d", directory_ / "to_d/e", directory_ / "d/to_e"}) {
    EXPECT_FALSE(no_reparse_components(path)) << path;
    EXPECT_FALSE(protected_ancestors(path)) << path;
    EXPECT_FALSE(create_private_directory(path)) << path;
    for (const PathTest test : ALL_TESTS) EXPECT_FALSE(check_path(path, test)) << path;
  }
  EXPECT_TRUE(no_reparse_components(inner));
}

TEST_F(Paths, OnlyTheLastComponentMayBeMissing) {
  EXPECT_TRUE(no_reparse_components(directory_ / "missing"));
  EXPECT_FALSE(no_reparse_components(directory_ / "missing/file"));
  write_file(directory_ / "file", "x");
  EXPECT_FALSE(no_reparse_components(directory_ / "file/below"));
  for (const PathTest test : ALL_TESTS) EXPECT_FALSE(check_path(directory_ / "missing", test));
}

TEST_F(Paths, ARelativePathFails) {
  const fs::path here = fs::current_path();
  fs::current_path(make("d", 0700));
  for (const char* relative : {"", ".", "f", "./f", "..", "server/share"}) {
    EXPECT_FALSE(no_reparse_components(relative)) << relative;
    EXPECT_FALSE(check_path(relative, PathTest::Ancestor)) << relative;
    EXPECT_FALSE(protected_ancestors(relative)) << relative;
  }
  fs::current_path(here);
}

TEST_F(Paths, EveryAncestorIsJudgedAndThePathItselfIsNot) {
  const fs::path a = make("a", 0755);
  const fs::path b = make("a/b", 0755), c = make("a/b/c", 0777);
  EXPECT_TRUE(protected_ancestors("/"));
  EXPECT_TRUE(protected_ancestors(c));
  EXPECT_TRUE(protected_ancestors(b / "missing"));
  EXPECT_FALSE(protected_ancestors(c / "file"));
  ASSERT_EQ(chmod(a.c_str(), 0775), 0);
  EXPECT_FALSE(protected_ancestors(c));
}

TEST_F(Paths, APrivateDirectoryIsMadeWhereThereIsNone) {
  const mode_t former = umask(0);
  const fs::path path = directory_ / "made";
  EXPECT_TRUE(create_private_directory(path));
  umask(former);
  EXPECT_TRUE(check_path(path, PathTest::Private));
  EXPECT_TRUE(create_private_directory(path));
  EXPECT_FALSE(create_private_directory(directory_ / "missing/made"));
}

TEST_F(Paths, ADirectoryThatSomebodyElsePreparedIsRefused) {
  const fs::path open_to_all = make("open", 0755), anothers = make("anothers", 0700);
  ASSERT_EQ(chown(anothers.c_str(), ORDINARY_USER, 0), 0);
  EXPECT_FALSE(create_private_directory(open_to_all));
  EXPECT_FALSE(create_private_directory(anothers));
}

TEST_F(Paths, APrivateDirectoryIsNotMadeWithAListHandedDown) {
  const fs::path parent = make("parent", 0700);
  if (!set_access_list(parent, DEFAULT_ACCESS_LIST, 7, 7, 7))
    GTEST_SKIP() << "no access lists here: " << std::strerror(errno);
  EXPECT_FALSE(create_private_directory(parent / "made"));
}

// ---- Processes

Process of(const Forked& forked) {
  return Process::open(static_cast<std::uint32_t>(forked.pid()));
}

TEST(Processes, ThereIsNoneWithoutAnIdOrBehindOneThatEnded) {
  EXPECT_FALSE(Process());
  EXPECT_FALSE(Process().alive());
  EXPECT_FALSE(system_process(Process(), nullptr));
  EXPECT_FALSE(elevated_admin_process(Process()));
  EXPECT_FALSE(Process::open(0));
  EXPECT_FALSE(Process::open(UINT32_MAX));
  Forked ended([] { return 0; });
  const pid_t id = ended.pid();
  ended.wait();
  EXPECT_FALSE(Process::open(static_cast<std::uint32_t>(id)));
}

TEST(Processes, OneThatHasEndedIsKnownAtOnceReapedOrNot) {
  const Signal go;
  Forked child([&go] {
    go.take();
    return 0;
  });
  const Process process = of(child);
  EXPECT_EQ(process.id(), static_cast<std::uint32_t>(child.pid()));
  EXPECT_TRUE(process.alive());
  go.give();
  pollfd polled{static_cast<int>(process.native_handle()), POLLIN, 0};
  ASSERT_EQ(poll(&polled, 1, 10'000), 1);
  EXPECT_FALSE(process.alive());
  EXPECT_FALSE(elevated_admin_process(process));
  EXPECT_EQ(child.wait(), 0);
  EXPECT_TRUE(process);
  EXPECT_FALSE(process.alive());
  EXPECT_FALSE(system_process(process, nullptr));
}

TEST(Processes, TheSystemsOwnIsRootInItsRealAndEffectiveIdAndAnAdministratorsInTheEffectiveOne) {
  if (!is_root()) GTEST_SKIP() << "only root can be the system";
  struct Case {
    uid_t real, effective;
    bool system, elevated;
  };
  for (const Case& user :
       {Case{0, 0, true, true}, Case{ORDINARY_USER, 0, false, true},
        Case{0, ORDINARY_USER, false, false}, Case{ORDINARY_USER, ORDINARY_USER, false, false}}) {
    const Signal changed, asked;
    Forked child([&] {
      if (setresuid(user.real, user.effective, 0) != 0) return 1;
      changed.give();
      asked.take();
      return 0;
    });
    changed.take();
    const Process process = of(child);
    EXPECT_EQ(system_process(process, nullptr), user.system) << user.real << user.effective;
    EXPECT_EQ(elevated_admin_process(process), user.elevated) << user.real << user.effective;
    asked.give();
    EXPECT_EQ(child.wait(), 0);
  }
}

TEST(Processes, OnesOwnSessionIsTheOneOfItsDisplay) {
  if (!is_root()) GTEST_SKIP() << "only root can be the system";
  const Process self = Process::current();
  EXPECT_EQ(self.id(), static_cast<std::uint32_t>(getpid()));
  std::uint32_t session = 77;
  {
    const Variable display("DISPLAY", ":41.0");
    EXPECT_TRUE(system_process(self, &session));
    EXPECT_EQ(session, 42u);
  }
  const Variable none("DISPLAY", nullptr);
  EXPECT_TRUE(system_process(self, &session));
  EXPECT_EQ(session, 0u);
}

TEST(Processes, AnothersSessionIsTheOneOfTheDisplayItWasStartedWith) {
  if (!is_root()) GTEST_SKIP() << "only root can be the system";
  const auto session_with = [](const char* display) {
    ChildProcess child({"sh", "-c", "echo up; kill -STOP $$"},
                       {{"DISPLAY", display}, {"XDISPLAY", ":5"}});
    EXPECT_TRUE(child.wait_for_output("up\n", std::chrono::seconds(30)));
    std::uint32_t session = 77;
    EXPECT_TRUE(system_process(Process::open(static_cast<std::uint32_t>(child.pid())), &session));
    return session;
  };
  EXPECT_EQ(session_with(":7.1"), 8u);
  EXPECT_EQ(session_with(""), 0u);
}

TEST(Processes, AReferenceStaysWithItsProcessWhenTheIdPassesToAnother) {
  if (!is_root()) GTEST_SKIP() << "only root can choose a process's id";
  const int result = in_pid_namespace([] {
    const auto sleeper = [] {
      pause();
      return 0;
    };
    Forked first(sleeper);
    const pid_t id = first.pid();
    const Process process = of(first);
    if (!system_process(process, nullptr)) return 1;
    first.end();
    if (!choose_next_id(id)) return NO_NAMESPACE;
    Forked second(sleeper);
    if (second.pid() != id) return 2;
    if (!system_process(of(second), nullptr)) return 3;
    if (process.alive() || system_process(process, nullptr) || elevated_admin_process(process))
      return 4;
    return 0;
  });
  if (result == NO_NAMESPACE) GTEST_SKIP() << "no namespace of process ids here";
  EXPECT_EQ(result, 0);
}

}  // namespace
