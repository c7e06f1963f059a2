#include "control/client_store.h"

#include <algorithm>
#include <vector>

#include "connection/wiped.h"
#include "control/private_file.h"
#include "control/store_platform.h"
#include "control/sysinfo.h"
#include "control/text.h"

namespace {

using store_platform::Read;

constexpr char IDENTITY[] = "identity";
constexpr char HOSTS[] = "hosts";
constexpr char RELAYS[] = "relays";
constexpr char IDENTITY_PURPOSE[] = "client identity";
constexpr char HOST_IDENTITY_PURPOSE[] = "identity";  // as the keystore seals it
constexpr char RELAYS_PURPOSE[] = "client relays";
constexpr std::size_t FILE_LIMIT_BYTES = 65'536;

Read read_sealed(const std::filesystem::path& directory, const char* name, const char* purpose,
                 std::string* text) {
  std::string sealed;
  const Read read = store_platform::read_file(directory / name, FILE_LIMIT_BYTES, &sealed);
  if (read != Read::Ok) return read;
  return store_platform::unprotect(keystore::User, directory, purpose, sealed, text) ? Read::Ok
                                                                                     : Read::Failed;
}

bool write_sealed(const std::filesystem::path& directory, const char* name, const char* purpose,
                  std::string_view text) {
  std::string sealed;
  return store_platform::protect(keystore::User, directory, purpose, text, &sealed) &&
         write_private_file(directory / name, sealed.data(), sealed.size());
}

Read load_identity(const std::filesystem::path& directory, const char* purpose,
                   lund_keypair* identity) {
  Wiped<std::string> text;
  const Read read = read_sealed(directory, IDENTITY, purpose, &text.value);
  const bool damaged = read == Read::Ok && lund_identity_load(identity, text.value.c_str()) != 0;
  return damaged ? Read::Failed : read;
}

bool make_identity(const std::filesystem::path& directory, lund_keypair* identity) {
  Wiped<char[2 * LUND_KEY_SIZE + 1]> hex;
  return lund_identity_generate(identity, hex.value) == 0 &&
         write_sealed(directory, IDENTITY, IDENTITY_PURPOSE, hex.value);
}

std::string not_saved(const std::filesystem::path& directory) {
  return "cannot save this device's identity in " + directory.string();
}

std::string unreadable(const std::filesystem::path& directory) {
  return "this device's identity in " + directory.string() +
         " is unreadable: move it away and pair again";
}

bool matches(const lund_host_entry& host, const std::string& selector) {
  if (selector == host.name || is_code_of(selector, host.key)) return true;
  lund_rv_endpoint address;
  return lund_addr_parse(&address, selector.c_str(), HOST_PORT) == 0 &&
         (lund_rv_endpoint_equal(address, host.lan_endpoint) ||
          lund_rv_endpoint_equal(address, host.wan_endpoint));
}

}  // namespace

bool ClientStore::open(std::filesystem::path directory, std::string* error) {
  const bool users_own = directory.empty();
  if (users_own && !keystore::configureHostStore(keystore::User, error)) return false;
  directory_ = users_own ? app_data_dir() / "client" : std::move(directory);
  if (!store_platform::make_directory(directory_)) {
    *error = "cannot make the directory " + directory_.string();
    return false;
  }
  const bool identified = open_own_identity(!users_own, error) ||
                          (users_own && error->empty() && open_hosts_identity(error));
  return identified && load_hosts(error) && load_relays(error);
}

// False with an empty `error` where there is none and none is to be made.
bool ClientStore::open_own_identity(bool make, std::string* error) {
  error->clear();
  switch (load_identity(directory_, IDENTITY_PURPOSE, &identity_)) {
    case Read::Ok:
      return true;
    case Read::Failed:
      *error = unreadable(directory_);
      return false;
    case Read::Missing:
      break;
  }
  if (!make) return false;
  if (make_identity(directory_, &identity_)) return true;
  *error = not_saved(directory_);
  return false;
}

bool ClientStore::open_hosts_identity(std::string* error) {
  const std::filesystem::path directory = keystore::hostStoreDirectory();
  Read read = load_identity(directory, HOST_IDENTITY_PURPOSE, &identity_);
  if (read == Read::Missing) {
    // Taken from the disk and not from what is returned: an identity that wasn't saved, or that a
    // host made at the same moment replaced, would be paired in vain.
    keystore::load_or_create_identity(nullptr);
    read = load_identity(directory, HOST_IDENTITY_PURPOSE, &identity_);
  }
  identity_is_hosts_ = read == Read::Ok;
  if (read == Read::Failed) *error = unreadable(directory);
  if (read == Read::Missing) *error = not_saved(directory);
  return identity_is_hosts_;
}

bool ClientStore::load_hosts(std::string* error) {
  std::string bytes;
  lund_host_list hosts;
  const Read read = store_platform::read_file(directory_ / HOSTS, FILE_LIMIT_BYTES, &bytes);
  if (read == Read::Failed ||
      (read == Read::Ok && lund_host_list_load(&hosts, bytes.data(), bytes.size()) != 0)) {
    *error =
        "the list of hosts in " + directory_.string() + " is damaged: move it away and pair again";
    return false;
  }
  hosts_ = hosts;
  return true;
}

bool ClientStore::load_relays(std::string* error) {
  Wiped<std::string> text;
  const Read read = read_sealed(directory_, RELAYS, RELAYS_PURPOSE, &text.value);
  const bool loaded = read != Read::Failed &&
                      lund_relay_config_load_stored(&relays_, text.value.data(), text.value.size(),
                                                    read == Read::Ok ? 1 : 0) == 0;
  if (!loaded)
    *error = "the list of relay servers in " + directory_.string() +
             " is unreadable: move the file relays away and add them again";
  return loaded;
}

const lund_host_entry* ClientStore::find(const std::string& selector) const {
  const lund_host_entry* found = nullptr;
  for (int i = 0; i < hosts_.count; ++i) {
    if (!matches(hosts_.entries[i], selector)) continue;
    // Of several hosts at one address, the one last paired is there now.
    if (!found || hosts_.entries[i].added_at > found->added_at) found = &hosts_.entries[i];
  }
  return found;
}

const lund_host_entry* ClientStore::find(const std::uint8_t key[LUND_KEY_SIZE]) const {
  const int index = lund_host_list_find(&hosts_, key);
  return index < 0 ? nullptr : &hosts_.entries[index];
}

int ClientStore::count(const std::string& selector) const {
  return static_cast<int>(
      std::count_if(hosts_.entries, hosts_.entries + hosts_.count,
                    [&](const lund_host_entry& host) { return matches(host, selector); }));
}

bool ClientStore::save_hosts(std::string* error) {
  std::vector<char> text(LUND_LIST_TEXT_MAX);
  const std::size_t size = lund_host_list_save(&hosts_, text.data(), text.size());
  if (size != 0 && write_private_file(directory_ / HOSTS, text.data(), size)) return true;
  *error = "cannot save the list of hosts in " + directory_.string();
  return false;
}

bool ClientStore::save_relays(std::string* error) {
  Wiped text(std::string(LUND_LIST_TEXT_MAX, '\0'));
  text.value.resize(lund_relay_config_save(&relays_, text.value.data(), text.value.size()));
  if (!text.value.empty() && write_sealed(directory_, RELAYS, RELAYS_PURPOSE, text.value))
    return true;
  *error = "cannot save the list of relay servers in " + directory_.string();
  return false;
}

bool ClientStore::put(lund_host_entry host, std::string* error) {
  if (!load_hosts(error)) return false;
  if (lund_host_list_put(&hosts_, &host) < 0) {
    *error = "32 hosts are known already: forget one";
    return false;
  }
  return save_hosts(error);
}

bool ClientStore::update(const lund_host_entry& host, const Change& change, std::string* error) {
  lund_host_entry changed = host;
  if (!load_hosts(error)) return false;
  const lund_host_entry* stored = find(changed.key);
  if (!stored) return true;
  changed = *stored;
  change(changed);
  return put(changed, error);
}

bool ClientStore::forget(lund_host_entry host, std::string* error) {
  if (!load_hosts(error)) return false;
  if (lund_host_list_remove(&hosts_, host.key) != 0) {
    *error = "no such host is known";
    return false;
  }
  return save_hosts(error);
}

bool ClientStore::change_relays(const RelayChange& change, std::string* error) {
  if (!load_relays(error)) return false;
  return !change(&relays_) || save_relays(error);
}
