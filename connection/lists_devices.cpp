// The two lists of devices: the clients that this host lets in, and the hosts that a client knows.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "connection/clock.h"
#include "connection/lists.h"
#include "connection/lists_internal.h"

namespace {

constexpr std::string_view CLIENTS_FIRST_LINE = "lunderhaze-clients-v1";
constexpr std::string_view HOSTS_FIRST_LINE = "lunderhaze-hosts-v1";
constexpr std::size_t LINE_CHARS = 511;
constexpr std::string_view UNSET = "-";

std::uint64_t now_seconds() {
  return lund_wall_us() / 1'000'000;
}

// Index of the entry with this key, or -1; both lists are alike here.
template <class List>
int find_key(const List& list, const std::uint8_t* key) {
  for (int i = 0; i < list.count; ++i)
    if (std::memcmp(list.entries[i].key, key, LUND_KEY_SIZE) == 0) return i;
  return -1;
}

// A place for this key: its entry's, or a new one's. -1 in a full list.
template <class List>
int place_for(List& list, const std::uint8_t* key) {
  const int found = find_key(list, key);
  if (found >= 0) return found;
  if (list.count >= static_cast<int>(std::size(list.entries))) return -1;
  list.entries[list.count] = {};
  return list.count++;
}

// Removes every entry with this key, so that none that a stored text repeated stays behind.
template <class List>
int remove_key(List& list, const std::uint8_t* key) {
  auto* begin = list.entries;
  auto* end = begin + list.count;
  auto* kept_end = std::remove_if(begin, end, [key](const auto& entry) {
    return std::memcmp(entry.key, key, LUND_KEY_SIZE) == 0;
  });
  if (kept_end == end) return -1;
  std::fill(kept_end, end, std::remove_pointer_t<decltype(end)>{});
  list.count = static_cast<std::int32_t>(kept_end - begin);
  return 0;
}

// Loads a list line by line; a line that doesn't parse fails the whole, and nothing stays.
template <class List, class ParseLine>
int load_list(List* list, const char* bytes, std::size_t size, std::string_view first_line,
              ParseLine parse_line) {
  *list = {};
  LineReader<LINE_CHARS> reader(bytes, bytes != nullptr ? size : 0);
  bool good = reader.next() && reader.line() == first_line;
  while (good && reader.next()) {
    const std::string_view line = reader.line();
    if (line.empty()) continue;
    good = list->count < static_cast<int>(std::size(list->entries)) &&
           line.find('\0') == line.npos && parse_line(line, list->entries[list->count]);
    if (good) ++list->count;
  }
  if (!good) *list = {};
  return good ? 0 : -1;
}

bool parse_key(std::string_view digits, std::uint8_t (&key)[LUND_KEY_SIZE]) {
  return digits.size() == 2 * LUND_KEY_SIZE &&
         lund_hex_decode(key, LUND_KEY_SIZE, std::string(digits).c_str()) == 0;
}

// By strtoull: signs and leading white space pass, what is too large saturates.
bool parse_number(std::string_view field, int base, std::uint64_t* out) {
  const std::string text(field);
  char* end = nullptr;
  *out = std::strtoull(text.c_str(), &end, base);
  return end != text.c_str() && *end == '\0';
}

bool parse_endpoint(std::string_view field, lund_rv_endpoint* out) {
  *out = {};
  return field == UNSET || lund_addr_parse(out, std::string(field).c_str(), 0) == 0;
}

// The rest of a line behind the last field.
void parse_name(std::string_view rest, char (&name)[64]) {
  rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  conn_clean_name(name, std::string(rest).c_str());
}

bool parse_client(std::string_view line, lund_client_entry& entry) {
  if (!parse_key(next_field(line), entry.key)) return false;
  if (!parse_number(next_field(line), 10, &entry.added_at)) return false;
  parse_name(line, entry.name);
  return true;
}

bool parse_host(std::string_view line, lund_host_entry& entry) {
  std::uint64_t lan_id = 0;
  const bool good = parse_key(next_field(line), entry.key) &&
                    parse_number(next_field(line), 16, &lan_id) && lan_id <= UINT32_MAX &&
                    parse_endpoint(next_field(line), &entry.lan_endpoint) &&
                    parse_endpoint(next_field(line), &entry.wan_endpoint) &&
                    parse_number(next_field(line), 10, &entry.added_at) &&
                    parse_number(next_field(line), 10, &entry.last_used);
  if (!good) return false;
  entry.lan_id = static_cast<std::uint32_t>(lan_id);
  parse_name(line, entry.name);
  return true;
}

// Room for any line of either list.
class LineText {
 public:
  template <class... Values>
  LineText(const char* format, Values... values) {
    std::snprintf(text_, sizeof(text_), format, values...);
  }
  operator std::string_view() const { return text_; }

 private:
  char text_[LINE_CHARS + 1];
};

struct EndpointText {
  explicit EndpointText(const lund_rv_endpoint& address) {
    const std::size_t size = lund_addr_format(text, sizeof(text), address);
    // A port of 0 is no port to the parser, so it isn't written.
    if (address.family != 0 && address.port == 0) text[size - std::strlen(":0")] = '\0';
  }
  char text[LUND_ADDR_TEXT];
};

}  // namespace

std::size_t lund_client_list_save(const lund_client_list* list, char* out, std::size_t capacity) {
  TextWriter text(out, capacity);
  text.add(CLIENTS_FIRST_LINE);
  text.add("\n");
  for (int i = 0; i < list->count; ++i) {
    const lund_client_entry& entry = list->entries[i];
    char key[2 * LUND_KEY_SIZE + 1];
    lund_hex_encode(key, entry.key, LUND_KEY_SIZE);
    text.add(
        LineText("%s %llu %s\n", key, static_cast<unsigned long long>(entry.added_at), entry.name));
  }
  return text.finish();
}

int lund_client_list_load(lund_client_list* list, const char* bytes, std::size_t size) {
  return load_list(list, bytes, size, CLIENTS_FIRST_LINE, parse_client);
}

int lund_client_list_find(const lund_client_list* list, const std::uint8_t key[LUND_KEY_SIZE]) {
  return find_key(*list, key);
}

int lund_client_list_add(lund_client_list* list, const std::uint8_t key[LUND_KEY_SIZE],
                         const char* name) {
  const std::int32_t before = list->count;
  const int index = place_for(*list, key);
  if (index < 0) return -1;
  lund_client_entry& entry = list->entries[index];
  if (index == before) {
    std::memcpy(entry.key, key, LUND_KEY_SIZE);
    entry.added_at = now_seconds();
  }
  conn_clean_name(entry.name, name);
  return index;
}

int lund_client_list_remove(lund_client_list* list, const std::uint8_t key[LUND_KEY_SIZE]) {
  return remove_key(*list, key);
}

std::size_t lund_host_list_save(const lund_host_list* list, char* out, std::size_t capacity) {
  TextWriter text(out, capacity);
  text.add(HOSTS_FIRST_LINE);
  text.add("\n");
  for (int i = 0; i < list->count; ++i) {
    const lund_host_entry& entry = list->entries[i];
    char key[2 * LUND_KEY_SIZE + 1];
    lund_hex_encode(key, entry.key, LUND_KEY_SIZE);
    text.add(LineText("%s %08x %s %s %llu %llu %s\n", key, entry.lan_id,
                      EndpointText(entry.lan_endpoint).text, EndpointText(entry.wan_endpoint).text,
                      static_cast<unsigned long long>(entry.added_at),
                      static_cast<unsigned long long>(entry.last_used), entry.name));
  }
  return text.finish();
}

int lund_host_list_load(lund_host_list* list, const char* bytes, std::size_t size) {
  return load_list(list, bytes, size, HOSTS_FIRST_LINE, parse_host);
}

int lund_host_list_find(const lund_host_list* list, const std::uint8_t key[LUND_KEY_SIZE]) {
  return find_key(*list, key);
}

int lund_host_list_find_lan_id(const lund_host_list* list, std::uint32_t lan_id) {
  if (lan_id == 0) return -1;
  for (int i = 0; i < list->count; ++i)
    if (list->entries[i].lan_id == lan_id) return i;
  return -1;
}

int lund_host_list_put(lund_host_list* list, const lund_host_entry* entry) {
  const int index = place_for(*list, entry->key);
  if (index < 0) return -1;
  const std::string name(entry->name, strnlen(entry->name, sizeof(entry->name)));
  lund_host_entry& stored = list->entries[index];
  stored = *entry;
  conn_clean_name(stored.name, name.c_str());
  if (stored.added_at == 0) stored.added_at = now_seconds();
  return index;
}

int lund_host_list_remove(lund_host_list* list, const std::uint8_t key[LUND_KEY_SIZE]) {
  return remove_key(*list, key);
}
