// The store's own parts, for its files and its tests: scope and health, whole files, secret files.
#pragma once

#include <atomic>
#include <filesystem>
#include <mutex>
#include <string>

#include "connection/wiped.h"
#include "control/keystore.h"
#include "control/store_platform.h"

namespace keystore::internal {

using store_platform::Read;

inline constexpr std::size_t FILE_LIMIT_BYTES = 1'048'576;

using Secret = Wiped<std::string>;

// The process's one store. Configured on the main thread before any other starts; later on only
// its health changes.
struct Store {
  bool configured = false;
  HostStoreScope scope = User;
  std::filesystem::path directory;  // empty: the scope's own
  std::atomic<bool> healthy{true};  // goes false once and for all
  std::mutex mutex;                 // guards `failure`
  std::string failure;
};
Store& store();

bool is_machine();

// Fails the store and throws the same text.
[[noreturn]] void fatal(const char* text);

// Something stored is unusable. Machine scope: fatal with the first text, which is stable and holds
// no path. User scope: the line, for a person.
void unusable(const char* machine_text, const std::string& user_line);

// A save failed: the store fails in the machine scope, and the line is logged.
void not_saved(const char* line);

bool is_file_name(const char* name);
std::filesystem::path path_of(const char* name);
Read read_plain(const char* name, std::string* bytes);
Read read_protected(const char* name, std::string* text);

// Atomic: afterwards the file is the old one or the new one, after a crash too.
bool write_private(const char* name, const void* data, std::size_t size);
bool write_protected(const char* name, const std::string& text);

// The machine scope's way through configureHostStore: a damaged store is found before anything
// serves from it, and the identity exists from then on.
bool configure_machine(std::string* error);

// As a new process in that scope, its store in `directory`; an empty one means the scope's own.
// tests/support defines it: no program can move its store, or heal it.
void reset_for_test(HostStoreScope scope, const std::filesystem::path& directory);

}  // namespace keystore::internal
