// What the store takes from the platform: its place, whole files, and the encryption of secrets.
// control/<platform>/ defines it. Any thread; results only, the policy is the store's.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "control/keystore.h"

namespace store_platform {

std::filesystem::path user_store_directory();     // empty when the user has none
std::filesystem::path machine_store_directory();  // empty when the system has no place for it
extern const char* const NO_MACHINE_DIRECTORY;    // what is said then
bool make_directory(const std::filesystem::path& directory);  // for the user alone

// All that a directory holds; false when it can't be told whole.
bool list_directory(const std::filesystem::path& directory,
                    std::vector<std::filesystem::path>* entries);

// There is nothing by that name, not even a link that leads nowhere. False when it can't be told.
bool is_absent(const std::filesystem::path& path);

enum class Read { Ok, Missing, Failed };

// The whole of a plain file that is smaller than `limit_bytes`. `bytes` holds nothing otherwise.
Read read_file(const std::filesystem::path& path, std::size_t limit_bytes, std::string* bytes);

// A new file for the user alone, written and flushed. A file that is there already is a failure; a
// failure leaves no file behind.
bool create_file(const std::filesystem::path& path, const void* data, std::size_t size);

// Atomic; the change of name is on the disk when it returns.
bool replace_file(const std::filesystem::path& from, const std::filesystem::path& to);

bool remove_file(const std::filesystem::path& path);  // true when it is gone

// Encrypts for this computer and, in the user scope, this user. Where the key is the store's own
// (Linux), what was protected under one purpose isn't accepted under another, and what the key lies
// in makes way for a new one when it is damaged, in the user scope; in the machine scope that is a
// failure, now and at the next start.
bool protect(keystore::HostStoreScope scope, const std::filesystem::path& directory,
             std::string_view purpose, std::string_view plain, std::string* sealed);
bool unprotect(keystore::HostStoreScope scope, const std::filesystem::path& directory,
               std::string_view purpose, std::string_view sealed, std::string* plain);

}  // namespace store_platform
