// What the store's files mean, and what damage to each costs. The texts inside are the connection
// library's.
#include <algorithm>
#include <cctype>
#include <string_view>

#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/log.h"
#include "control/private_file.h"
#include "control/text.h"

namespace keystore {

using namespace internal;

namespace {

constexpr std::size_t IDENTITY_DIGITS = 2 * LUND_KEY_SIZE;
constexpr const char* IDENTITY = "identity";
constexpr const char* CLIENTS = "authorized_clients";
constexpr const char* PASSWORD = "pairing_password";
constexpr const char* RELAYS = "relays";

std::string path_text(const char* name) {
  const std::u8string text = path_of(name).u8string();
  return {text.begin(), text.end()};
}

// False when it is missing; a damaged one is dealt with and then as good as missing.
bool load_identity(lund_keypair* identity) {
  Secret stored;
  const Read result = read_protected(IDENTITY, &stored.value);
  if (result == Read::Missing) return false;
  const bool whole = !is_machine() || stored.value.size() == IDENTITY_DIGITS;
  if (result == Read::Ok && whole && lund_identity_load(identity, stored.value.c_str()) == 0) {
    return true;
  }
  // A worker never replaces its identity by itself.
  if (is_machine()) fatal("machine identity is unreadable or malformed");
  store_platform::replace_file(path_of(IDENTITY), path_of("identity.bad"));
  hlog(
      "identity: %s is unreadable (another user's or damaged; kept as identity.bad): NEW identity, "
      "paired devices must pair again",
      path_text(IDENTITY).c_str());
  return false;
}

int count_fields(const std::string& text) {
  int count = 0;
  bool inside = false;
  for (const char character : text) {
    const bool blank = std::isspace(static_cast<unsigned char>(character)) != 0;
    if (!blank && !inside) ++count;
    inside = !blank;
  }
  return count;
}

std::string_view behind_field(std::string_view line) {
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  line.remove_prefix(std::min(line.find(' '), line.size()));
  line.remove_prefix(std::min(line.find_first_not_of(' '), line.size()));
  return line;
}

// No name is written that is longer than an entry holds. One that is has swallowed the line behind
// it, by damage to the line end between them: a device would be missing, and nobody told.
bool holds_swallowed_line(std::string_view text) {
  while (!text.empty()) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    if (behind_field(behind_field(line)).size() >= sizeof(lund_client_entry::name)) return true;
  }
  return false;
}

// Exactly the blob's five fields, and nothing behind them.
bool is_whole_password_blob(const std::string& text) {
  Wiped<lund_password_record> record;
  return count_fields(text) == 5 && lund_password_blob_parse(&record.value, text.c_str()) == 0;
}

}  // namespace

bool peek_identity(lund_keypair* identity) {
  Secret stored;
  return read_protected(IDENTITY, &stored.value) == Read::Ok &&
         lund_identity_load(identity, stored.value.c_str()) == 0;
}

lund_keypair load_or_create_identity(bool* created) {
  if (created != nullptr) *created = false;
  if (is_machine() && !hostStoreHealthy(nullptr)) fatal("machine store already failed");
  lund_keypair identity;
  if (load_identity(&identity)) return identity;
  Secret digits;
  digits.value.resize(IDENTITY_DIGITS + 1);
  if (lund_identity_generate(&identity, digits.value.data()) != 0) {
    unusable("machine identity generation failed", "identity: key generation failed");
    return {};
  }
  digits.value.resize(IDENTITY_DIGITS);
  if (!write_protected(IDENTITY, digits.value)) {
    unusable(
        "machine identity persistence failed",
        "identity: could not save " + path_text(IDENTITY) + "; this identity lasts until quit");
    return identity;
  }
  if (created != nullptr) *created = true;
  hlog("identity: created a new key for this PC (%s)", code_of(identity.public_key).c_str());
  return identity;
}

lund_client_list load_clients() {
  lund_client_list clients;
  std::string text;
  const Read result = read_plain(CLIENTS, &text);
  if (result != Read::Ok) {
    if (result == Read::Failed && is_machine()) fatal("machine authorized clients unreadable");
    return clients;
  }
  if (lund_client_list_load(&clients, text.data(), text.size()) != 0 ||
      holds_swallowed_line(text)) {
    unusable("machine authorized clients malformed",
             "authorized_clients is malformed: no paired devices loaded");
    return {};
  }
  return clients;
}

bool save_clients(const lund_client_list& clients) {
  std::string text(LUND_LIST_TEXT_MAX, '\0');
  const std::size_t size = lund_client_list_save(&clients, text.data(), text.size());
  if (size != 0 && write_private(CLIENTS, text.data(), size)) return true;
  not_saved("could not save the paired devices list");
  return false;
}

std::string load_password_blob() {
  Secret blob;
  const Read result = read_protected(PASSWORD, &blob.value);
  if (result == Read::Failed) {
    unusable("machine pairing password unreadable",
             "pairing_password is unreadable: password pairing is off");
  }
  if (result != Read::Ok) return {};
  if (is_machine() && !is_whole_password_blob(blob.value)) {
    fatal("machine pairing password malformed");
  }
  return blob.value;
}

bool save_password_blob(const std::string& blob) {
  if (write_protected(PASSWORD, blob)) return true;
  not_saved("could not save the pairing password; it lasts until quit");
  return false;
}

void delete_password_blob() {
  if (is_machine() && !hostStoreHealthy(nullptr)) return;
  const std::filesystem::path path = path_of(PASSWORD);
  if (path.empty()) return;
  if (!trusted_or_absent(path)) {
    failHostStore("machine password ACL invalid");
  } else if (!store_platform::remove_file(path)) {
    failHostStore("machine password deletion failed");
  }
}

lund_relay_config load_relays() {
  lund_relay_config relays;
  Secret text;
  const Read result = read_protected(RELAYS, &text.value);
  if (result == Read::Failed) {
    unusable("machine relays unreadable",
             "relays is unreadable (another user's or damaged): no relay servers");
    return relays;
  }
  const int stored_state = result == Read::Ok ? 1 : 0;
  if (lund_relay_config_load_stored(&relays, text.value.data(), text.value.size(), stored_state) !=
          0 &&
      result == Read::Ok) {
    unusable("machine relays malformed", "relays is malformed: no relay servers");
    return {};
  }
  return relays;
}

bool save_relays(const lund_relay_config& relays) {
  Secret text(std::string(LUND_LIST_TEXT_MAX, '\0'));
  text.value.resize(lund_relay_config_save(&relays, text.value.data(), text.value.size()));
  if (!text.value.empty() && write_protected(RELAYS, text.value)) return true;
  not_saved("could not save the relay server list");
  return false;
}

}  // namespace keystore
