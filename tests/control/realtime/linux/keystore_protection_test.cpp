// What of the machine's store others could reach is refused: at the start whatever it is, and later
// on at each use.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/settings.h"
#include "control/switches.h"
#include "control/sysinfo.h"
#include "tests/support/linux/access_list.h"
#include "tests/support/linux/environment.h"
#include "tests/support/machine_store.h"
#include "tests/support/store_values.h"

namespace {

namespace fs = std::filesystem;

// A way in which a file or a directory stops being the system's alone.
struct Spoil {
  const char* name;
  std::function<bool(const fs::path&)> make;  // false where this can't be made
  std::function<void(const fs::path&)> undo;
};

bool set_mode(const fs::path& path, mode_t added) {
  struct stat status {};
  return stat(path.c_str(), &status) == 0 && chmod(path.c_str(), status.st_mode | added) == 0;
}

void clear_mode(const fs::path& path) {
  EXPECT_EQ(chmod(path.c_str(), fs::is_directory(path) ? 0700 : 0600), 0);
}

fs::path moved(const fs::path& path) {
  return path.string() + "-moved";
}

const std::vector<Spoil> SPOILS = {
    {"another owner", [](const auto& path) { return chown(path.c_str(), ORDINARY_USER, 0) == 0; },
     [](const auto& path) { EXPECT_EQ(chown(path.c_str(), 0, 0), 0); }},
    {"readable for the group", [](const auto& path) { return set_mode(path, S_IRGRP); },
     clear_mode},
    {"readable for others", [](const auto& path) { return set_mode(path, S_IROTH); }, clear_mode},
    {"open to others to pass", [](const auto& path) { return set_mode(path, S_IXOTH); },
     clear_mode},
    // The mask keeps the mode at 0600: only the list itself shows.
    {"an access list", [](const auto& path) { return set_access_list(path, ACCESS_LIST, 7, 4, 0); },
     [](const auto& path) { EXPECT_EQ(removexattr(path.c_str(), ACCESS_LIST), 0); }},
    {"a symbolic link to a private one",
     [](const auto& path) {
       fs::rename(path, moved(path));
       fs::create_symlink(moved(path), path);
       return true;
     },
     [](const auto& path) {
       fs::remove(path);
       fs::rename(moved(path), path);
     }},
};

std::string thrown(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::runtime_error& error) {
    return error.what();
  }
  return "nothing thrown";
}

class MachineStoreProtection : public testing::Test {
 protected:
  void SetUp() override {
    if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
    ASSERT_EQ(store_.configure(), "");
    ASSERT_TRUE(keystore::save_clients(clients_named("Living room", 2)));
    ASSERT_TRUE(keystore::save_password_blob(password_blob()));
    ASSERT_TRUE(keystore::save_relays(one_relay()));
    ASSERT_TRUE(host_app::save_settings({}));
    load_or_create_host_id();
    write_private_text(store_ / "host.log", "a line\r\n");
    write_private_text(store_ / "stray", "");
    ASSERT_EQ(store_.configure(), "");
  }

  // With each spoil of this path in turn, in a process whose store is healthy so far.
  void for_each_spoil(const fs::path& path, const std::function<void()>& check) {
    for (const Spoil& spoil : SPOILS) {
      const testing::ScopedTrace trace(__FILE__, __LINE__, path.string() + ": " + spoil.name);
      store_.restart();
      if (!spoil.make(path)) {
        spoiled_all_ = false;
        continue;
      }
      check();
      spoil.undo(path);
      ASSERT_EQ(store_.configure(), "");
    }
  }

  void TearDown() override {
    if (!IsSkipped() && !spoiled_all_) GTEST_SKIP() << "there are no access lists here";
  }

  MachineStore store_;
  bool spoiled_all_ = true;
};

const std::vector<std::string> FILES = {"identity", "authorized_clients", "pairing_password",
                                        "relays",   "settings",           "host_id",
                                        "host.log", "store.key",          "stray"};

// The start

TEST_F(MachineStoreProtection, ADirectoryThatOthersCouldReachIsRefusedAtTheStart) {
  for (const fs::path& path : {store_.path(), store_.parent()})
    for_each_spoil(path,
                   [&] { EXPECT_EQ(store_.configure(), "machine directory protection invalid"); });
}

TEST_F(MachineStoreProtection, OneFileThatOthersCouldReachHasTheWholeRefusedAtTheStart) {
  for (const std::string& name : FILES)
    for_each_spoil(store_ / name,
                   [&] { EXPECT_EQ(store_.configure(), "machine file protection invalid"); });
}

TEST_F(MachineStoreProtection, AFileInTheDirectorysPlaceCannotBeListed) {
  fs::remove_all(store_.path());
  write_private_text(store_.path(), "");
  EXPECT_EQ(store_.configure(), "machine directory enumeration failed");
}

TEST_F(MachineStoreProtection, ALinkThatLeadsNowhereIsAStrayFileToo) {
  fs::create_symlink("/nowhere", store_ / "link");
  EXPECT_EQ(store_.configure(), "machine file protection invalid");
}

TEST_F(MachineStoreProtection, EachStepOfTheStartComesBeforeTheNext) {
  ASSERT_EQ(chmod(store_.parent().c_str(), 0755), 0);
  ASSERT_EQ(chmod((store_ / "stray").c_str(), 0644), 0);
  write_private_text(store_ / "settings", "short");
  for (const char* name : {"identity", "authorized_clients", "pairing_password", "relays"})
    write_private_text(store_ / name, "damaged");

  EXPECT_EQ(store_.configure(), "machine directory protection invalid");
  ASSERT_EQ(chmod(store_.parent().c_str(), 0700), 0);
  EXPECT_EQ(store_.configure(), "machine file protection invalid");
  ASSERT_EQ(chmod((store_ / "stray").c_str(), 0600), 0);
  const std::pair<const char*, const char*> steps[] = {
      {"settings", "machine settings malformed"},
      {"identity", "machine identity is unreadable or malformed"},
      {"authorized_clients", "machine authorized clients malformed"},
      {"pairing_password", "machine pairing password unreadable"},
      {"relays", "machine relays unreadable"}};
  for (const auto& [name, said] : steps) {
    EXPECT_EQ(store_.configure(), said);
    fs::remove(store_ / name);
  }
  EXPECT_EQ(store_.configure(), "");
}

TEST_F(MachineStoreProtection, ASystemWithoutAPlaceForStateSaysSo) {
  const Mount hidden = Mount::tmpfs("/var", "size=64k,mode=0755");
  if (!hidden.ok()) GTEST_SKIP() << "needs the right to mount";
  keystore::internal::reset_for_test(keystore::Machine, {});
  std::string error;
  EXPECT_FALSE(keystore::configureHostStore(keystore::Machine, &error));
  EXPECT_EQ(error, "state directory unavailable");
}

TEST_F(MachineStoreProtection, TheRealOneLiesBelowVarLib) {
  const Mount machine = Mount::tmpfs("/var/lib", "size=64k,mode=0755");
  if (!machine.ok()) GTEST_SKIP() << "needs the right to mount";
  keystore::internal::reset_for_test(keystore::Machine, {});
  const mode_t former = umask(0);
  std::string error;
  EXPECT_TRUE(keystore::configureHostStore(keystore::Machine, &error)) << error;
  umask(former);
  EXPECT_EQ(keystore::hostStoreDirectory(), "/var/lib/lunderhaze/host");
  EXPECT_EQ(app_data_dir(), "/var/lib/lunderhaze/host");
  for (const char* path : {"/var/lib/lunderhaze", "/var/lib/lunderhaze/host"}) {
    EXPECT_EQ(fs::status(path).permissions(), fs::perms::owner_all) << path;
  }
  for (const char* name : {"identity", "store.key"}) {
    EXPECT_EQ(fs::status(keystore::hostStoreDirectory() / name).permissions(),
              fs::perms::owner_read | fs::perms::owner_write)
        << name;
  }
}

// Each use

struct Use {
  const char* file;
  std::function<void()> use;
  const char* said;
  bool throws;
};

TEST_F(MachineStoreProtection, AFileThatOthersCouldReachIsNotReadLaterOnEither) {
  const auto read = [](const char* name) {
    return [name] {
      std::string bytes;
      keystore::readHostFile(name, &bytes);
    };
  };
  const std::vector<Use> uses = {
      {"stray", read("stray"), "machine file unreadable", true},
      {"settings", [] { host_app::load_settings(); }, "machine file unreadable", true},
      {"host_id", [] { load_or_create_host_id(); }, "machine file unreadable", true},
      {"identity", [] { keystore::load_or_create_identity(nullptr); },
       "machine identity is unreadable or malformed", true},
      {"authorized_clients", [] { keystore::load_clients(); },
       "machine authorized clients unreadable", true},
      {"pairing_password", [] { keystore::load_password_blob(); },
       "machine pairing password unreadable", true},
      {"relays", [] { keystore::load_relays(); }, "machine relays unreadable", true},
      {"store.key", [] { keystore::load_relays(); }, "machine relays unreadable", true},
  };
  for (const Use& use : uses)
    for_each_spoil(store_ / use.file, [&] {
      EXPECT_EQ(thrown(use.use), use.said);
      EXPECT_EQ(store_failure(), use.said);
    });
}

TEST_F(MachineStoreProtection, AFileThatOthersCouldReachIsNeitherReplacedNorDeleted) {
  const std::vector<Use> uses = {
      {"authorized_clients", [] { EXPECT_FALSE(keystore::save_clients({})); },
       "machine persistence failed", false},
      {"pairing_password", [] { EXPECT_FALSE(keystore::save_password_blob(password_blob('c'))); },
       "machine persistence failed", false},
      {"pairing_password", [] { keystore::delete_password_blob(); }, "machine password ACL invalid",
       false},
      {"relays", [] { EXPECT_FALSE(keystore::save_relays({})); }, "machine persistence failed",
       false},
      {"settings", [] { EXPECT_FALSE(host_app::save_settings({.port = 1})); },
       "machine file write failed", false},
      {"store.key", [] { EXPECT_FALSE(keystore::save_relays({})); }, "machine persistence failed",
       false},
  };
  for (const Use& use : uses) {
    const std::string before = file_content(store_ / use.file);
    const std::size_t entries = entry_count(store_.path());
    for_each_spoil(store_ / use.file, [&] {
      use.use();
      EXPECT_EQ(store_failure(), use.said);
      EXPECT_EQ(file_content(store_ / use.file), before);
    });
    EXPECT_EQ(entry_count(store_.path()), entries);
  }
}

TEST_F(MachineStoreProtection, NothingIsWrittenIntoADirectoryThatOthersCouldReach) {
  const std::size_t entries = entry_count(store_.path());
  for_each_spoil(store_.path(), [&] {
    EXPECT_FALSE(keystore::writeHostFile("new", "x", 1));
    EXPECT_EQ(store_failure(), "machine file write failed");
    EXPECT_EQ(entry_count(store_.path()), entries);
  });
}

TEST_F(MachineStoreProtection, NoKeyIsMadeInADirectoryThatOthersCouldReach) {
  for_each_spoil(store_.path(), [&] {
    // Without secrets, so that the store can be whole again afterwards.
    for (const char* name : {"identity", "pairing_password", "relays", "store.key"})
      fs::remove(store_ / name);
    EXPECT_FALSE(keystore::verifyHostProtection());
    EXPECT_FALSE(fs::exists(store_ / "store.key"));
  });
}

TEST_F(MachineStoreProtection, ASwitchThatOthersCouldReachCountsAsUnsetAndIsNotReplaced) {
  ASSERT_TRUE(save_clipboard_sync(store_.path(), false));
  EXPECT_FALSE(load_clipboard_sync(store_.path()));
  for_each_spoil(store_ / "clipboard_sync", [&] {
    EXPECT_TRUE(load_clipboard_sync(store_.path()));
    EXPECT_FALSE(save_clipboard_sync(store_.path(), false));
  });
  keystore::failHostStore("worn out");
  EXPECT_FALSE(save_clipboard_sync(store_.path(), true));
  EXPECT_FALSE(load_clipboard_sync(store_.path()));
}

// The user's scope

TEST_F(MachineStoreProtection, AUsersStoreIsNotTested) {
  for (const std::string& name : FILES) {
    for (const Spoil& spoil : SPOILS) {
      keystore::internal::reset_for_test(keystore::User, store_.path());
      if (!spoil.make(store_ / name)) continue;
      bool created = true;
      keystore::load_or_create_identity(&created);
      EXPECT_FALSE(created) << name << ": " << spoil.name;
      EXPECT_EQ(keystore::load_clients().count, 2) << name << ": " << spoil.name;
      EXPECT_EQ(keystore::load_password_blob(), password_blob()) << name << ": " << spoil.name;
      EXPECT_EQ(keystore::load_relays().count, 1) << name << ": " << spoil.name;
      spoil.undo(store_ / name);
    }
  }
}

}  // namespace
