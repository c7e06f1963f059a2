// Scope, health and files. What the files mean is in keystore_records.cpp.
#include "control/keystore.h"

#include <stdexcept>

#include "control/keystore_internal.h"
#include "control/log.h"
#include "control/private_file.h"

namespace keystore {

using internal::store;
using internal::Store;

bool configureHostStore(HostStoreScope scope, std::string* error) {
  Store& state = store();
  if (state.configured) {
    if (scope == state.scope) return hostStoreHealthy(error);
    if (error != nullptr) *error = "Host store scope already configured";
    return false;
  }
  state.configured = true;
  state.scope = scope;
  return scope == User || internal::configure_machine(error);
}

HostStoreScope hostStoreScope() {
  return store().scope;
}

std::filesystem::path hostStoreDirectory() {
  const Store& state = store();
  if (!state.directory.empty()) return state.directory;
  return state.scope == Machine ? store_platform::machine_store_directory()
                                : store_platform::user_store_directory();
}

bool hostStoreHealthy(std::string* error) {
  Store& state = store();
  if (state.healthy) return true;
  if (error != nullptr) {
    const std::lock_guard lock(state.mutex);
    *error = state.failure;
  }
  return false;
}

void failHostStore(const std::string& reason) {
  Store& state = store();
  if (!internal::is_machine()) return;
  const std::lock_guard lock(state.mutex);
  if (!state.healthy) return;
  state.failure = reason;
  state.healthy = false;
}

bool verifyHostProtection() {
  constexpr std::string_view PROBE = "LHDPAPI";
  const std::filesystem::path directory = hostStoreDirectory();
  std::string sealed;
  std::string plain;
  return store_platform::protect(hostStoreScope(), directory, "probe", PROBE, &sealed) &&
         store_platform::unprotect(hostStoreScope(), directory, "probe", sealed, &plain) &&
         plain == PROBE;
}

bool readHostFile(const char* name, std::string* bytes) {
  if (!internal::is_file_name(name)) return false;
  const internal::Read result = internal::read_plain(name, bytes);
  if (result == internal::Read::Failed && internal::is_machine()) {
    internal::fatal("machine file unreadable");
  }
  return result == internal::Read::Ok;
}

bool writeHostFile(const char* name, const void* data, std::size_t size) {
  if (internal::is_file_name(name) && internal::write_private(name, data, size)) return true;
  failHostStore("machine file write failed");
  return false;
}

namespace internal {

Store& store() {
  static Store& instance = *new Store;
  return instance;
}

bool is_machine() {
  return store().scope == Machine;
}

void fatal(const char* text) {
  failHostStore(text);
  throw std::runtime_error(text);
}

void unusable(const char* machine_text, const std::string& user_line) {
  if (is_machine()) fatal(machine_text);
  hlog("%s", user_line.c_str());
}

void not_saved(const char* line) {
  failHostStore("machine persistence failed");
  hlog("%s", line);
}

bool is_file_name(const char* name) {
  return name != nullptr && name[0] != 0 &&
         std::string_view(name).find_first_of("/\\.") == std::string_view::npos;
}

// Empty without a store directory: never a file in whatever directory is the current one.
std::filesystem::path path_of(const char* name) {
  const std::filesystem::path directory = hostStoreDirectory();
  return directory.empty() ? directory : directory / name;
}

Read read_plain(const char* name, std::string* bytes) {
  const std::filesystem::path path = path_of(name);
  if (path.empty()) return Read::Missing;
  return read_private_file(path, FILE_LIMIT_BYTES, bytes);
}

Read read_protected(const char* name, std::string* text) {
  std::string sealed;
  const Read result = read_plain(name, &sealed);
  if (result != Read::Ok) return result;
  const bool opened =
      store_platform::unprotect(hostStoreScope(), hostStoreDirectory(), name, sealed, text);
  return opened ? Read::Ok : Read::Failed;
}

bool write_private(const char* name, const void* data, std::size_t size) {
  const std::filesystem::path directory = hostStoreDirectory();
  if (directory.empty()) return false;
  if (!is_machine()) store_platform::make_directory(directory);
  return write_private_file(directory / name, data, size);
}

bool write_protected(const char* name, const std::string& text) {
  const std::filesystem::path directory = hostStoreDirectory();
  if (directory.empty() || !hostStoreHealthy(nullptr)) return false;
  std::string sealed;
  return store_platform::protect(hostStoreScope(), directory, name, text, &sealed) &&
         write_private(name, sealed.data(), sealed.size());
}

}  // namespace internal

}  // namespace keystore
