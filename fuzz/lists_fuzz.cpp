// Every parser of a stored or typed text over any bytes. What loads saves, and from the first
// saving on the text stays the same.
#include <cstring>
#include <string>

#include "connection/lists.h"
#include "connection/netsock.h"
#include "fuzz/require.h"

namespace {

template <class List>
std::string saved(const List& list, std::size_t (*save)(const List*, char*, std::size_t)) {
  std::string text(LUND_LIST_TEXT_MAX, '\0');
  text.resize(save(&list, text.data(), text.size()));
  return text;
}

// Loading cleans names and may bring a blank to a name's start, which the next loading drops; so
// the text is the same from the second saving on.
template <class List>
void check_list(const std::string& text, int (*load)(List*, const char*, std::size_t),
                std::size_t (*save)(const List*, char*, std::size_t), int limit) {
  List list;
  if (load(&list, text.data(), text.size()) != 0) {
    require(list.count == 0, "a failed load leaves nothing");
    return;
  }
  require(list.count <= limit, "a list keeps its limit");
  const std::int32_t count = list.count;
  std::string last;
  for (int i = 0; i < 3; ++i) {
    const std::string now = saved(list, save);
    require(!now.empty(), "what loads can be saved");
    require(i < 2 || now == last, "saving is stable");
    last = now;
    require(load(&list, now.data(), now.size()) == 0, "what was saved loads");
    require(list.count == count, "loading keeps every entry");
  }
}

void check_link(const char* text) {
  lund_relay_server server;
  if (lund_relay_link_parse(&server, text) != 0) return;
  char once[1024], twice[1024];
  require(lund_relay_link_format(once, sizeof(once), &server) != 0, "a parsed link formats");
  lund_relay_server back;
  require(lund_relay_link_parse(&back, once) == 0, "a formatted link parses");
  require(back.key_size == server.key_size &&
              std::memcmp(back.key, server.key, LUND_RELAY_KEY_MAX) == 0 &&
              lund_relay_server_same(&back, &server) &&
              lund_rv_endpoint_equal(back.endpoint, server.endpoint),
          "a link keeps its server");
  require(lund_relay_link_format(twice, sizeof(twice), &back) != 0 && std::strcmp(once, twice) == 0,
          "formatting is stable");
}

void check_address(const char* text) {
  lund_rv_endpoint address, back;
  if (lund_addr_parse(&address, text, 9877) != 0) {
    require(address.family == 0, "a failed parse leaves nothing");
    return;
  }
  char formatted[LUND_ADDR_TEXT];
  lund_addr_format(formatted, sizeof(formatted), address);
  require(lund_addr_parse(&back, formatted, 0) == 0 && lund_rv_endpoint_equal(address, back),
          "an address keeps its value");
}

void check_blob(const char* text) {
  lund_password_record record, back;
  if (lund_password_blob_parse(&record, text) != 0) return;
  char formatted[LUND_PASSWORD_BLOB_MAX];
  require(lund_password_blob_format(formatted, sizeof(formatted), &record) != 0, "a blob formats");
  require(lund_password_blob_parse(&back, formatted) == 0 &&
              std::memcmp(&record, &back, sizeof(record)) == 0,
          "a blob keeps its values");
}

void check_name(const char* text) {
  char once[64], twice[64];
  conn_clean_name(once, text);
  require(std::strlen(once) < sizeof(once), "a name ends within its room");
  conn_clean_name(twice, once);
  require(std::strcmp(once, twice) == 0, "a clean name is clean");
  for (const char* c = once; *c != '\0'; ++c)
    require(static_cast<unsigned char>(*c) >= 32 && *c != 127, "no control characters");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  check_list(text, lund_relay_config_load, lund_relay_config_save, LUND_RELAYS_MAX);
  check_list(text, lund_client_list_load, lund_client_list_save, LUND_CLIENTS_MAX);
  check_list(text, lund_host_list_load, lund_host_list_save, LUND_HOSTS_MAX);
  check_link(text.c_str());
  check_address(text.c_str());
  check_blob(text.c_str());
  check_name(text.c_str());
  lund_keypair identity;
  lund_identity_load(&identity, text.c_str());
  const int kind = lund_secret_guess_kind(text.c_str());
  require(kind == 1 || kind == 2, "a secret is a PIN or a password");
  return 0;
}
