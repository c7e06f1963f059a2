// The machine store: a directory that only the system may reach, whose every anomaly is fatal.
#include <exception>
#include <vector>

#include "control/ipc_protocol.h"
#include "control/keystore.h"
#include "control/keystore_internal.h"
#include "control/security.h"

namespace keystore::internal {

namespace {

void make_directories(const std::filesystem::path& directory) {
  if (directory.empty()) fatal(store_platform::NO_MACHINE_DIRECTORY);
  if (!host_service::create_private_directory(directory.parent_path()) ||
      !host_service::create_private_directory(directory)) {
    fatal("machine directory protection invalid");
  }
}

void check_entries(const std::filesystem::path& directory) {
  std::vector<std::filesystem::path> entries;
  if (!store_platform::list_directory(directory, &entries))
    fatal("machine directory enumeration failed");
  bool all_private = true;
  for (const std::filesystem::path& entry : entries)
    all_private = host_service::protected_path(entry, true) && all_private;
  if (!all_private) fatal("machine file protection invalid");
}

void check_settings() {
  std::string bytes;
  if (!readHostFile("settings", &bytes)) return;
  host_service::Settings settings;
  if (!host_service::decode_settings({bytes.begin(), bytes.end()}, &settings)) {
    fatal("machine settings malformed");
  }
}

// Each throws when what it loads is damaged.
void check_records() {
  load_or_create_identity(nullptr);
  load_clients();
  const Secret blob(load_password_blob());
  load_relays();
}

}  // namespace

bool configure_machine(std::string* error) {
  if (!hostStoreHealthy(error)) return false;
  try {
    const std::filesystem::path directory = hostStoreDirectory();
    make_directories(directory);
    check_entries(directory);
    check_settings();
    check_records();
  } catch (const std::exception& failure) {
    failHostStore(failure.what());
    if (error != nullptr) *error = failure.what();
    return false;
  }
  return hostStoreHealthy(error);
}

}  // namespace keystore::internal
