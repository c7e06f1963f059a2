// What the connection layer keeps between runs, in memory and as text: relay servers, authorized
// clients, known hosts, the identity, the password verifier; and the name rule. No file access: the
// control folder stores the bytes. Parsers return -1 and leave nothing half read behind, secrets
// wiped; nothing logs. All data is the caller's.
#pragma once

#include <cstddef>
#include <cstdint>

#include "connection/netsock.h"
#include "connection/secure.h"

inline constexpr int LUND_RELAYS_MAX = 8;
inline constexpr int LUND_CLIENTS_MAX = 32;
inline constexpr int LUND_HOSTS_MAX = 32;
inline constexpr std::uint16_t LUND_RELAY_PORT = 9877;
inline constexpr std::size_t LUND_RELAY_KEY_MAX = 128;
inline constexpr std::size_t LUND_PASSWORD_BLOB_MAX = 160;
// Argon2id parameters of a new pairing password.
inline constexpr std::uint32_t LUND_PASSWORD_MEM_KIB = 65'536;
inline constexpr std::uint32_t LUND_PASSWORD_ITERATIONS = 3;

struct lund_relay_server {
  char host[254] = {};  // name or literal; a bracketed IPv6 literal without its brackets
  std::uint16_t port = LUND_RELAY_PORT;
  std::uint64_t key_size = 0;
  std::uint8_t key[LUND_RELAY_KEY_MAX] = {};
  lund_rv_endpoint endpoint;  // of a literal, or resolved; family 0 while unknown
  ~lund_relay_server() { lund_secure_wipe(key, sizeof key); }
};

struct lund_relay_config {
  std::int32_t count = 0;
  lund_relay_server servers[LUND_RELAYS_MAX];
};

struct lund_client_entry {
  std::uint8_t key[LUND_KEY_SIZE] = {};
  char name[64] = {};
  std::uint64_t added_at = 0;  // seconds since 1970 UTC
};

struct lund_client_list {
  std::int32_t count = 0;
  lund_client_entry entries[LUND_CLIENTS_MAX];
};

struct lund_host_entry {
  std::uint8_t key[LUND_KEY_SIZE] = {};
  char name[64] = {};
  std::uint32_t lan_id = 0;
  lund_rv_endpoint lan_endpoint;
  lund_rv_endpoint wan_endpoint;
  std::uint64_t added_at = 0;   // seconds since 1970 UTC
  std::uint64_t last_used = 0;  // the client application's
};

struct lund_host_list {
  std::int32_t count = 0;
  lund_host_entry entries[LUND_HOSTS_MAX];
};

// The text "lunderhaze-pw1 salt mem iterations verifier".
struct lund_password_record {
  std::uint8_t salt[16] = {};
  std::uint32_t mem_kib = 0;
  std::uint32_t iterations = 0;
  std::uint8_t verifier[32] = {};
};

// Relay servers and links, "lunderhaze-relay://host[:port][/]#key".
int lund_relay_server_set(lund_relay_server* out, const char* host_text, std::uint16_t port,
                          const std::uint8_t* key, std::size_t key_size);
int lund_relay_link_parse(lund_relay_server* out, const char* text);
std::size_t lund_relay_link_format(char* out, std::size_t capacity,
                                   const lund_relay_server* server);
// "host:port", an IPv6 literal in brackets; the text's length, 0 when it doesn't fit.
std::size_t lund_relay_server_name(char* out, std::size_t capacity,
                                   const lund_relay_server* server);
bool lund_relay_server_same(const lund_relay_server* a, const lund_relay_server* b);
int lund_relay_config_add(lund_relay_config* config, const lund_relay_server* server);  // index
int lund_relay_config_add_link(lund_relay_config* config, const char* text);            // index
int lund_relay_config_remove(lund_relay_config* config, int index);
std::size_t lund_relay_config_save(const lund_relay_config* config, char* out,
                                   std::size_t capacity);
int lund_relay_config_load(lund_relay_config* config, const char* bytes, std::size_t size);
// `stored_state` 0: nothing stored, the built-in default link (a build-time value, empty by
// default, which gives an empty list); 1: the bytes are loaded; anything else: -1.
int lund_relay_config_load_stored(lund_relay_config* config, const char* bytes, std::size_t size,
                                  int stored_state);
// Adds `link` unless it is empty. 0, or -1 for one that doesn't parse.
int lund_relay_config_add_default(lund_relay_config* config, const char* link);

// Identity: the X25519 secret in 64 hexadecimal digits. `hex_out` has room for 65.
int lund_identity_generate(lund_keypair* keypair, char* hex_out);
int lund_identity_load(lund_keypair* keypair, const char* text);

std::size_t lund_client_list_save(const lund_client_list* list, char* out, std::size_t capacity);
int lund_client_list_load(lund_client_list* list, const char* bytes, std::size_t size);
int lund_client_list_find(const lund_client_list* list, const std::uint8_t key[LUND_KEY_SIZE]);
int lund_client_list_add(lund_client_list* list, const std::uint8_t key[LUND_KEY_SIZE],
                         const char* name);
int lund_client_list_remove(lund_client_list* list, const std::uint8_t key[LUND_KEY_SIZE]);

std::size_t lund_host_list_save(const lund_host_list* list, char* out, std::size_t capacity);
int lund_host_list_load(lund_host_list* list, const char* bytes, std::size_t size);
int lund_host_list_find(const lund_host_list* list, const std::uint8_t key[LUND_KEY_SIZE]);
int lund_host_list_find_lan_id(const lund_host_list* list, std::uint32_t lan_id);
int lund_host_list_put(lund_host_list* list, const lund_host_entry* entry);
int lund_host_list_remove(lund_host_list* list, const std::uint8_t key[LUND_KEY_SIZE]);

// Room that the whole text of a full list fits.
inline constexpr std::size_t LUND_LIST_TEXT_MAX = 32'768;

// For every name that comes in from outside: at most 63 bytes, whole UTF-8 sequences, control
// characters as blanks. Null gives an empty name.
void conn_clean_name(char out[64], const char* text);

// 1 (PIN) for exactly six digits, otherwise 2 (password).
int lund_secret_guess_kind(const char* text);

// Argon2id (RFC 9106), one lane. Allocates mem_kib KiB for its duration. 0, or -1 for parameters
// out of range (memory 8..0x100000 KiB, iterations 1..16), a null password, or no memory.
int lund_password_derive(std::uint8_t out[32], const char* password, const std::uint8_t salt[16],
                         std::uint32_t mem_kib, std::uint32_t iterations);

int lund_password_blob_parse(lund_password_record* out, const char* text);
// The text's length, 0 when it doesn't fit; LUND_PASSWORD_BLOB_MAX always does.
std::size_t lund_password_blob_format(char* out, std::size_t capacity,
                                      const lund_password_record* record);
