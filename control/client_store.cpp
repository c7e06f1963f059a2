#include "control/client_store.h"

#include <cstring>
#include <vector>

#include "control/private_file.h"
#include "control/store_platform.h"
#include "control/sysinfo.h"

namespace {

using store_platform::Read;

constexpr char IDENTITY[] = "identity";
constexpr char HOSTS[] = "hosts";
constexpr char PURPOSE[] = "client identity";
constexpr std::size_t FILE_LIMIT_BYTES = 65'536;

bool load_identity(const std::filesystem::path& directory, const std::string& sealed,
                   lund_keypair* identity) {
  std::string text;
  const bool loaded =
      store_platform::unprotect(keystore::User, directory, PURPOSE, sealed, &text) &&
      lund_identity_load(identity, text.c_str()) == 0;
  lund_secure_wipe(text.data(), text.size());
  return loaded;
}

bool make_identity(const std::filesystem::path& directory, lund_keypair* identity) {
  char hex[2 * LUND_KEY_SIZE + 1];
  std::string sealed;
  const bool made = lund_identity_generate(identity, hex) == 0 &&
                    store_platform::protect(keystore::User, directory, PURPOSE, hex, &sealed) &&
                    write_private_file(directory / IDENTITY, sealed.data(), sealed.size());
  lund_secure_wipe(hex, sizeof hex);
  return made;
}

bool matches(const lund_host_entry& host, const std::string& selector) {
  if (selector == host.name) return true;
  std::uint8_t code[5];
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, host.key);
  if (lund_key_code_parse(code, selector.c_str()) == 0 && std::memcmp(code, id, sizeof code) == 0)
    return true;
  lund_rv_endpoint address;
  return lund_addr_parse(&address, selector.c_str(), HOST_PORT) == 0 &&
         lund_rv_endpoint_equal(address, host.lan_endpoint);
}

}  // namespace

ClientStore::~ClientStore() {
  lund_secure_wipe(&identity_, sizeof identity_);
}

bool ClientStore::open(std::filesystem::path directory, std::string* error) {
  directory_ = directory.empty() ? app_data_dir() / "client" : std::move(directory);
  if (!store_platform::make_directory(directory_)) {
    *error = "cannot make the directory " + directory_.string();
    return false;
  }
  std::string bytes;
  switch (store_platform::read_file(directory_ / IDENTITY, FILE_LIMIT_BYTES, &bytes)) {
    case Read::Missing:
      if (make_identity(directory_, &identity_)) break;
      *error = "cannot save this device's identity in " + directory_.string();
      return false;
    case Read::Ok:
      if (load_identity(directory_, bytes, &identity_)) break;
      [[fallthrough]];
    case Read::Failed:
      *error = "this device's identity in " + directory_.string() +
               " is unreadable: move it away and pair again";
      return false;
  }
  const Read hosts = store_platform::read_file(directory_ / HOSTS, FILE_LIMIT_BYTES, &bytes);
  if (hosts == Read::Missing) return true;
  if (hosts == Read::Ok && lund_host_list_load(&hosts_, bytes.data(), bytes.size()) == 0)
    return true;
  *error =
      "the list of hosts in " + directory_.string() + " is damaged: move it away and pair again";
  return false;
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

bool ClientStore::put(const lund_host_entry& host, std::string* error) {
  if (lund_host_list_put(&hosts_, &host) < 0) {
    *error = "32 hosts are known already";
    return false;
  }
  std::vector<char> text(LUND_LIST_TEXT_MAX);
  const std::size_t size = lund_host_list_save(&hosts_, text.data(), text.size());
  if (size != 0 && write_private_file(directory_ / HOSTS, text.data(), size)) return true;
  *error = "cannot save the list of hosts in " + directory_.string();
  return false;
}
