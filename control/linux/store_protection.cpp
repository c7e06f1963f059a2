// Encryption of the store's secrets. Without a key service of the system's own, the key is derived
// from two things that lie apart: a random key file beside the secrets, which only their owner can
// read, and the machine's id, so that a store that is copied to another computer stays shut.
//
//   key file   "lunderhaze-key1\n" | 1 byte: bound to the machine id (0, 1) | 32 random bytes
//   key        BLAKE2b-256, keyed with the random bytes, of "lunderhaze store secret", the byte,
//   the id secret     "LHSTORE1" | 24-byte random nonce | 16-byte tag | cipher text
//
// XChaCha20-Poly1305, whose nonce is long enough to be drawn at random for every write. The
// secret's magic and its purpose, the file's name, are authenticated too: one file can't be passed
// off as another.
#include <monocypher.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

#include "connection/wiped.h"
#include "control/private_file.h"
#include "control/security.h"
#include "control/store_platform.h"

namespace store_platform {

namespace {

constexpr std::string_view KEY_MAGIC = "lunderhaze-key1\n";
constexpr std::string_view KEY_LABEL = "lunderhaze store secret";
constexpr std::string_view SECRET_MAGIC = "LHSTORE1";
constexpr std::size_t NONCE_BYTES = 24;
constexpr std::size_t KEY_BYTES = 32;
constexpr std::size_t KEY_FILE_BYTES = KEY_MAGIC.size() + 1 + KEY_BYTES;
constexpr std::size_t KEY_FILE_LIMIT_BYTES = 4096;
constexpr std::size_t SECRET_HEADER_BYTES = SECRET_MAGIC.size() + NONCE_BYTES + LUND_MAC_SIZE;
constexpr std::size_t MACHINE_ID_DIGITS = 32;
constexpr std::size_t MACHINE_ID_LIMIT_BYTES = 256;

using Key = Wiped<std::array<std::uint8_t, KEY_BYTES>>;
using KeyFile = Wiped<std::array<std::uint8_t, KEY_FILE_BYTES>>;

enum class Creation { No, Yes };

const std::uint8_t* bytes_of(std::string_view text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}
std::uint8_t* bytes_of(std::string& text) {
  return reinterpret_cast<std::uint8_t*>(text.data());
}

bool is_hex_digit(char character) {
  return (character >= '0' && character <= '9') || (character >= 'a' && character <= 'f');
}

// Empty where the system has none, as in many containers.
std::string machine_id() {
  for (const char* path : {"/etc/machine-id", "/var/lib/dbus/machine-id"}) {
    std::string text;
    if (read_file(path, MACHINE_ID_LIMIT_BYTES, &text) != Read::Ok) continue;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    if (text.size() == MACHINE_ID_DIGITS && std::ranges::all_of(text, is_hex_digit)) return text;
  }
  return {};
}

bool is_place_for_key(keystore::HostStoreScope scope, const std::filesystem::path& directory) {
  return scope == keystore::Machine ? host_service::protected_path(directory, true)
                                    : make_directory(directory);
}

enum class KeyState { Ok, Missing, Unreadable, Damaged };

KeyState read_key_file(const std::filesystem::path& path, KeyFile* key_file) {
  Wiped<std::string> file;
  const std::string& bytes = file.value;
  const Read result = read_private_file(path, KEY_FILE_LIMIT_BYTES, &file.value);
  if (result == Read::Missing) return KeyState::Missing;
  if (result == Read::Failed) return KeyState::Unreadable;
  const bool whole = bytes.size() == KEY_FILE_BYTES && bytes.starts_with(KEY_MAGIC) &&
                     static_cast<std::uint8_t>(bytes[KEY_MAGIC.size()]) <= 1;
  if (whole) std::ranges::copy(bytes, key_file->value.begin());
  return whole ? KeyState::Ok : KeyState::Damaged;
}

// Puts a new key file in place if there is none by then: of several processes one wins.
bool create_key_file(const std::filesystem::path& path) {
  KeyFile fresh;
  std::ranges::copy(KEY_MAGIC, fresh.value.begin());
  fresh.value[KEY_MAGIC.size()] = machine_id().empty() ? 0 : 1;
  std::array<std::uint8_t, 16> drawn{};
  if (lund_random_bytes(fresh.value.data() + KEY_MAGIC.size() + 1, KEY_BYTES) != LUND_OK ||
      lund_random_bytes(drawn.data(), drawn.size()) != LUND_OK) {
    return false;
  }
  char suffix[2 * drawn.size() + 1];
  lund_hex_encode(suffix, drawn.data(), drawn.size());
  std::filesystem::path temporary = path;
  temporary += std::string(".tmp-") + suffix;
  if (!create_file(temporary, fresh.value.data(), fresh.value.size())) return false;
  const bool linked = link(temporary.c_str(), path.c_str()) == 0 || errno == EEXIST;
  return remove_file(temporary) && linked;
}

// A user's damaged key opens nothing any more, so it makes way for a new one when something is to
// be written; it is kept aside, as a copy of the right one may turn up. One that merely can't be
// read now stays, and so does the machine's, whatever its damage.
bool obtain_key_file(keystore::HostStoreScope scope, const std::filesystem::path& directory,
                     Creation creation, KeyFile* key_file) {
  const std::filesystem::path path = directory / "store.key";
  const KeyState state = read_key_file(path, key_file);
  if (state == KeyState::Ok) return true;
  if (creation == Creation::No || state == KeyState::Unreadable) return false;
  if (state == KeyState::Damaged && scope == keystore::Machine) return false;
  if (!is_place_for_key(scope, directory)) return false;
  if (state == KeyState::Damaged && !replace_file(path, directory / "store.key.bad")) return false;
  return create_key_file(path) && read_key_file(path, key_file) == KeyState::Ok;
}

bool derive_key(keystore::HostStoreScope scope, const std::filesystem::path& directory,
                Creation creation, Key* key) {
  KeyFile key_file;
  if (!obtain_key_file(scope, directory, creation, &key_file)) return false;
  const std::uint8_t bound = key_file.value[KEY_MAGIC.size()];
  const std::string id = bound != 0 ? machine_id() : std::string();
  if (bound != 0 && id.empty()) return false;
  crypto_blake2b_ctx context;
  crypto_blake2b_keyed_init(&context, KEY_BYTES, key_file.value.data() + KEY_MAGIC.size() + 1,
                            KEY_BYTES);
  crypto_blake2b_update(&context, bytes_of(KEY_LABEL), KEY_LABEL.size());
  crypto_blake2b_update(&context, &bound, 1);
  crypto_blake2b_update(&context, bytes_of(std::string_view(id)), id.size());
  crypto_blake2b_final(&context, key->value.data());
  return true;
}

std::string associated_data(std::string_view purpose) {
  return std::string(SECRET_MAGIC).append(purpose);
}

}  // namespace

bool protect(keystore::HostStoreScope scope, const std::filesystem::path& directory,
             std::string_view purpose, std::string_view plain, std::string* sealed) {
  Key key;
  std::array<std::uint8_t, NONCE_BYTES> nonce{};
  if (!derive_key(scope, directory, Creation::Yes, &key) ||
      lund_random_bytes(nonce.data(), nonce.size()) != LUND_OK) {
    return false;
  }
  const std::string ad = associated_data(purpose);
  sealed->assign(SECRET_MAGIC);
  sealed->append(nonce.begin(), nonce.end());
  sealed->resize(SECRET_HEADER_BYTES + plain.size());
  std::uint8_t* const tag = bytes_of(*sealed) + SECRET_MAGIC.size() + NONCE_BYTES;
  crypto_aead_lock(tag + LUND_MAC_SIZE, tag, key.value.data(), nonce.data(),
                   bytes_of(std::string_view(ad)), ad.size(), bytes_of(plain), plain.size());
  return true;
}

bool unprotect(keystore::HostStoreScope scope, const std::filesystem::path& directory,
               std::string_view purpose, std::string_view sealed, std::string* plain) {
  plain->clear();
  Key key;
  if (sealed.size() < SECRET_HEADER_BYTES || !sealed.starts_with(SECRET_MAGIC) ||
      !derive_key(scope, directory, Creation::No, &key)) {
    return false;
  }
  const std::string ad = associated_data(purpose);
  const std::uint8_t* const nonce = bytes_of(sealed) + SECRET_MAGIC.size();
  const std::uint8_t* const tag = nonce + NONCE_BYTES;
  plain->resize(sealed.size() - SECRET_HEADER_BYTES);
  if (crypto_aead_unlock(bytes_of(*plain), tag, key.value.data(), nonce,
                         bytes_of(std::string_view(ad)), ad.size(), tag + LUND_MAC_SIZE,
                         plain->size()) == 0) {
    return true;
  }
  plain->clear();
  return false;
}

}  // namespace store_platform
