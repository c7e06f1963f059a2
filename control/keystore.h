// What the host must remember between runs: identity, paired devices, the pairing password's
// verifier, relays, and small host files. In the user scope damage costs the feature concerned and
// a log line; in the machine scope it fails the store. Secrets are encrypted under the platform's
// protection, and every write is atomic: a temporary file of its own, flushed, renamed.
// Any thread; configuration first, on the main thread.
#pragma once

#include <filesystem>
#include <string>

#include "connection/lists.h"

namespace keystore {

enum HostStoreScope : int { User = 0, Machine = 1 };

// Once a process. In the user scope it only remembers the scope.
bool configureHostStore(HostStoreScope scope, std::string* error);
HostStoreScope hostStoreScope();
std::filesystem::path hostStoreDirectory();  // empty when it cannot be found

bool hostStoreHealthy(std::string* error);
void failHostStore(
    const std::string& reason);  // machine scope: the first reason stands; user: nothing

// Encrypts and decrypts a probe: whether the platform's protection works here.
bool verifyHostProtection();

// Plain files inside the store, by a name without '/', '\' and '.'.
bool readHostFile(const char* name, std::string* bytes);
bool writeHostFile(const char* name, const void* data, std::size_t size);

// A missing identity is made; a damaged one is kept aside as identity.bad and replaced (user
// scope).
lund_keypair load_or_create_identity(bool* created);
// To look only: false without a whole one, and nothing is made or moved.
bool peek_identity(lund_keypair* identity);

lund_client_list load_clients();
bool save_clients(const lund_client_list& clients);

std::string load_password_blob();  // empty when there is none
bool save_password_blob(const std::string& blob);
void delete_password_blob();

lund_relay_config load_relays();
bool save_relays(const lund_relay_config& relays);

}  // namespace keystore
