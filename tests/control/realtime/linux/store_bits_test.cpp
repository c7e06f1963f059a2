// Every bit of every file of the store, flipped. In a secret file it is noticed and costs what
// damage to that file costs in this scope. In a plain one it is noticed, or changes nothing but the
// value it stands in.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>

#include "control/ipc_protocol.h"
#include "control/keystore.h"
#include "control/log.h"
#include "control/settings.h"
#include "control/sysinfo.h"
#include "tests/support/linux/scoped_store.h"
#include "tests/support/store_values.h"

namespace {

namespace fs = std::filesystem;
using keystore::HostStoreScope;
using keystore::Machine;
using keystore::User;

class StoreBits : public testing::Test {
 protected:
  void fill(HostStoreScope scope) {
    store_ = std::make_unique<ScopedStore>(scope);
    ASSERT_EQ(store_->configure(), "");
    identity_ = keystore::load_or_create_identity(nullptr);
    ASSERT_TRUE(keystore::save_clients(clients()));
    ASSERT_TRUE(keystore::save_password_blob(password_blob()));
    ASSERT_TRUE(keystore::save_relays(one_relay()));
    ASSERT_TRUE(host_app::save_settings({}));
    write_private_text(*store_ / "host_id", "1096745328\r\n");
    for (const auto& entry : fs::directory_iterator(store_->path())) {
      whole_[entry.path().filename()] = file_content(entry.path());
    }
    log_open(false, logs_.path());
  }
  void TearDown() override { log_close(); }

  // Names and a time at which a flipped bit does most: a last character that may become a line
  // feed, a name that begins with a number, one of the full length.
  static lund_client_list clients() {
    lund_client_list list = clients_named("x", 4);
    const char* const names[] = {"Anna's PC*", "42 inches J", "", "last"};
    for (int i = 0; i < list.count; ++i) {
      lund_client_entry& entry = list.entries[i];
      for (std::size_t byte = 0; byte < sizeof entry.key; ++byte) {
        entry.key[byte] = static_cast<std::uint8_t>(17 * i + 7 * byte);
      }
      entry.added_at = 1'700'000'000u + static_cast<unsigned>(i);
      std::strcpy(entry.name, i == 2 ? std::string(63, 'n').c_str() : names[i]);
    }
    return list;
  }

  // `check` gets the bit, in a process to which the file always was damaged; afterwards the store
  // is whole again.
  void flip_each_bit_of(const std::string& name, const std::function<void(std::size_t)>& check) {
    const std::string whole = whole_.at(name);
    ASSERT_FALSE(whole.empty());
    for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
      damaged_ = whole;
      damaged_[bit / 8] = static_cast<char>(damaged_[bit / 8] ^ (1 << bit % 8));
      write_file(*store_ / name, damaged_);
      store_->restart();
      check(bit);
      ASSERT_FALSE(HasFailure()) << name << ", bit " << bit;
      restore();
    }
  }

  void restore() const {
    for (const auto& entry : fs::directory_iterator(store_->path())) {
      if (!whole_.contains(entry.path().filename())) fs::remove(entry.path());
    }
    for (const auto& [name, content] : whole_) {
      if (file_content(*store_ / name) != content) write_private_text(*store_ / name, content);
    }
  }

  bool same_identity(const lund_keypair& other) const {
    return std::memcmp(identity_.public_key, other.public_key, sizeof other.public_key) == 0;
  }

  std::unique_ptr<ScopedStore> store_;
  lund_keypair identity_;
  std::map<std::string, std::string> whole_;
  std::string damaged_;
  TempDirectory logs_;
};

// What differs between a list and the one that a file with a flipped bit gave: at most the entry on
// that line, and of it the key or the rest, by where on the line the bit stands.
void expect_one_value_changed(const lund_client_list& whole, const lund_client_list& damaged,
                              int line, std::size_t column) {
  ASSERT_EQ(damaged.count, whole.count);
  for (int i = 0; i < whole.count; ++i) {
    const lund_client_entry& was = whole.entries[i];
    const lund_client_entry& is = damaged.entries[i];
    const bool touched = i == line - 1;  // behind the first line
    if (!touched || column >= 2 * sizeof was.key) {
      EXPECT_EQ(std::memcmp(was.key, is.key, sizeof was.key), 0) << i;
    }
    if (!touched || column < 2 * sizeof was.key) {
      EXPECT_EQ(was.added_at, is.added_at) << i;
      EXPECT_STREQ(was.name, is.name) << i;
    }
  }
}

int line_of(const std::string& text, std::size_t at) {
  return static_cast<int>(std::count(text.begin(), text.begin() + static_cast<long>(at), '\n'));
}
std::size_t column_of(const std::string& text, std::size_t at) {
  const std::size_t before = at == 0 ? std::string::npos : text.rfind('\n', at - 1);
  return before == std::string::npos ? at : at - before - 1;
}

// How many of the fields differ.
int differences(const host_service::Settings& a, const host_service::Settings& b) {
  return (a.port != b.port) + (a.fps != b.fps) + (a.bitrate_kbps != b.bitrate_kbps) +
         (a.codec != b.codec) + (a.audio != b.audio) + (a.virtual_display != b.virtual_display) +
         (a.mac_keys != b.mac_keys) + (a.max_datagram != b.max_datagram);
}

host_service::Settings settings_in(const std::string& bytes) {
  host_service::Settings settings;
  EXPECT_TRUE(host_service::decode_settings({bytes.begin(), bytes.end()}, &settings));
  return settings;
}

class MachineStoreBits : public StoreBits {
 protected:
  void SetUp() override {
    if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
    fill(Machine);
  }
  // The start is refused in these words, and nothing is repaired, replaced or moved aside.
  void expect_refused(const std::string& name, const std::string& said) {
    flip_each_bit_of(name, [&](std::size_t) {
      EXPECT_EQ(store_->configure(), said);
      EXPECT_EQ(file_content(*store_ / name), damaged_);
      EXPECT_EQ(entry_count(store_->path()), whole_.size());
    });
  }
};

TEST_F(MachineStoreBits, AnyOfTheIdentityIsFatal) {
  expect_refused("identity", "machine identity is unreadable or malformed");
}
TEST_F(MachineStoreBits, AnyOfTheKeyFileIsFatal) {
  expect_refused("store.key", "machine identity is unreadable or malformed");
}
TEST_F(MachineStoreBits, AnyOfThePasswordIsFatal) {
  expect_refused("pairing_password", "machine pairing password unreadable");
}
TEST_F(MachineStoreBits, AnyOfTheRelaysIsFatal) {
  expect_refused("relays", "machine relays unreadable");
}

TEST_F(MachineStoreBits, AnyOfTheClientsIsFatalOrChangesOneValueAlone) {
  const std::string& text = whole_.at("authorized_clients");
  int refused = 0;
  int changed = 0;
  flip_each_bit_of("authorized_clients", [&](std::size_t bit) {
    if (const std::string said = store_->configure(); !said.empty()) {
      ++refused;
      EXPECT_EQ(said, "machine authorized clients malformed");
      return;
    }
    ++changed;
    expect_one_value_changed(clients(), keystore::load_clients(), line_of(text, bit / 8),
                             column_of(text, bit / 8));
  });
  EXPECT_GT(refused, 500);
  EXPECT_GT(changed, 500);
}

TEST_F(MachineStoreBits, AnyOfTheSettingsIsFatalOrChangesOneValueAlone) {
  const host_service::Settings whole = settings_in(whole_.at("settings"));
  int refused = 0;
  flip_each_bit_of("settings", [&](std::size_t) {
    if (const std::string said = store_->configure(); !said.empty()) {
      ++refused;
      EXPECT_EQ(said, "machine settings malformed");
      EXPECT_THROW(host_app::load_settings(), std::runtime_error);
    } else {
      host_app::load_settings();
      EXPECT_EQ(differences(whole, settings_in(damaged_)), 1);
    }
  });
  EXPECT_GT(refused, 16);
}

TEST_F(MachineStoreBits, AnyOfTheHostIdIsFatalOrChangesIt) {
  int refused = 0;
  flip_each_bit_of("host_id", [&](std::size_t) {
    ASSERT_EQ(store_->configure(), "");
    try {
      EXPECT_NE(load_or_create_host_id(), 0u);
    } catch (const std::runtime_error& error) {
      ++refused;
      EXPECT_STREQ(error.what(), "machine host id malformed");
      EXPECT_EQ(store_failure(), "machine host id malformed");
    }
    EXPECT_EQ(file_content(*store_ / "host_id"), damaged_);
  });
  EXPECT_GT(refused, 40);
}

class UserStoreBits : public StoreBits {
 protected:
  void SetUp() override { fill(User); }
  std::size_t lines_with(const std::string& text) const {
    const std::string log = file_content(logs_ / "host.log");
    std::size_t count = 0;
    for (std::size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) {
      ++count;
    }
    return count;
  }
};

TEST_F(UserStoreBits, AnyOfTheIdentityCostsTheIdentityAlone) {
  flip_each_bit_of("identity", [&](std::size_t) {
    bool created = false;
    const lund_keypair fresh = keystore::load_or_create_identity(&created);
    EXPECT_TRUE(created);
    EXPECT_FALSE(same_identity(fresh));
    EXPECT_EQ(file_content(*store_ / "identity.bad"), damaged_);
    EXPECT_EQ(keystore::load_password_blob(), password_blob());
    EXPECT_EQ(keystore::load_relays().count, 1);
  });
}

TEST_F(UserStoreBits, AnyOfTheKeyFileCostsEverySecretAndNothingElse) {
  flip_each_bit_of("store.key", [&](std::size_t) {
    EXPECT_EQ(keystore::load_password_blob(), "");
    EXPECT_EQ(keystore::load_relays().count, 0);
    bool created = false;
    const lund_keypair fresh = keystore::load_or_create_identity(&created);
    EXPECT_TRUE(created);
    EXPECT_FALSE(same_identity(fresh));
    EXPECT_EQ(file_content(*store_ / "identity.bad"), whole_.at("identity"));
    EXPECT_EQ(keystore::load_clients().count, clients().count);
    // And it lasts.
    store_->restart();
    const lund_keypair again = keystore::load_or_create_identity(&created);
    EXPECT_FALSE(created);
    EXPECT_EQ(std::memcmp(&fresh, &again, sizeof fresh), 0);
  });
}

TEST_F(UserStoreBits, AnyOfThePasswordTurnsPasswordPairingOff) {
  std::size_t flips = 0;
  flip_each_bit_of("pairing_password", [&](std::size_t) {
    ++flips;
    EXPECT_EQ(keystore::load_password_blob(), "");
    EXPECT_TRUE(same_identity(keystore::load_or_create_identity(nullptr)));
  });
  EXPECT_EQ(lines_with("pairing_password is unreadable: password pairing is off"), flips);
}

TEST_F(UserStoreBits, AnyOfTheRelaysLeavesNone) {
  std::size_t flips = 0;
  flip_each_bit_of("relays", [&](std::size_t) {
    ++flips;
    EXPECT_EQ(keystore::load_relays().count, 0);
  });
  EXPECT_EQ(lines_with("relays is unreadable (another user's or damaged): no relay servers"),
            flips);
}

TEST_F(UserStoreBits, AnyOfTheClientsIsSaidOrChangesOneValueAlone) {
  const std::string& text = whole_.at("authorized_clients");
  std::size_t refused = 0;
  flip_each_bit_of("authorized_clients", [&](std::size_t bit) {
    const lund_client_list damaged = keystore::load_clients();
    if (damaged.count == 0) {
      ++refused;
      return;
    }
    expect_one_value_changed(clients(), damaged, line_of(text, bit / 8), column_of(text, bit / 8));
  });
  EXPECT_GT(refused, 500u);
  EXPECT_EQ(lines_with("authorized_clients is malformed: no paired devices loaded"), refused);
}

TEST_F(UserStoreBits, AnyOfTheSettingsIsRefusedOrChangesOneValueAlone) {
  const host_service::Settings whole = settings_in(whole_.at("settings"));
  int refused = 0;
  flip_each_bit_of("settings", [&](std::size_t) {
    try {
      host_app::load_settings();
      EXPECT_EQ(differences(whole, settings_in(damaged_)), 1);
    } catch (const std::runtime_error&) {
      ++refused;
    }
  });
  EXPECT_GT(refused, 16);
}

TEST_F(UserStoreBits, AnyOfTheHostIdReplacesOrChangesIt) {
  flip_each_bit_of("host_id", [&](std::size_t) {
    const std::uint32_t id = load_or_create_host_id();
    EXPECT_NE(id, 0u);
    EXPECT_EQ(load_or_create_host_id(), id);
  });
}

}  // namespace
