#include "tests/support/stored_value.h"

#include <algorithm>

#include "control/ipc_protocol.h"
#include "control/keystore.h"
#include "control/settings.h"
#include "tests/support/store_values.h"

namespace {

// Of changing length, so that one isn't as long as the next.
lund_client_list clients(int value) {
  lund_client_list list = clients_named("device " + std::to_string(value), 1 + value % 3);
  for (lund_client_entry& entry : list.entries) {
    entry.added_at = 1'700'000'000u + static_cast<unsigned>(value);
  }
  return list;
}

std::string text_of(const lund_client_list& list) {
  std::string text(LUND_LIST_TEXT_MAX, '\0');
  text.resize(lund_client_list_save(&list, text.data(), text.size()));
  return text;
}

lund_relay_config relays(int value) {
  const std::string link = "lunderhaze-relay://relay.example:" + std::to_string(1 + value);
  return one_relay(link + "#secret-key-" + std::to_string(value * value));
}

std::string text_of(const lund_relay_config& config) {
  std::string text(LUND_LIST_TEXT_MAX, '\0');
  text.resize(lund_relay_config_save(&config, text.data(), text.size()));
  return text;
}

std::string password(int value) {
  std::string blob = password_blob();
  const std::string digits = std::to_string(value);
  return blob.replace(blob.size() - digits.size(), digits.size(), digits);
}

host_service::Settings settings(int value) {
  return {.bitrate_kbps = 500u + static_cast<unsigned>(value)};
}

std::string settings_text(const host_service::Settings& record) {
  const std::vector<unsigned char> bytes = host_service::encode_settings(record);
  return {bytes.begin(), bytes.end()};
}

std::string loaded_settings() {
  std::string bytes;
  keystore::readHostFile("settings", &bytes);
  return bytes;
}

}  // namespace

const std::vector<StoredValue>& stored_values() {
  static const std::vector<StoredValue> values = {
      {"authorized_clients", [](int value) { return keystore::save_clients(clients(value)); },
       [](int value) { return text_of(clients(value)); },
       [] { return text_of(keystore::load_clients()); }, "machine persistence failed",
       "could not save the paired devices list"},
      {"pairing_password", [](int value) { return keystore::save_password_blob(password(value)); },
       password, keystore::load_password_blob, "machine persistence failed",
       "could not save the pairing password; it lasts until quit"},
      {"relays", [](int value) { return keystore::save_relays(relays(value)); },
       [](int value) { return text_of(relays(value)); },
       [] { return text_of(keystore::load_relays()); }, "machine persistence failed",
       "could not save the relay server list"},
      {"settings", [](int value) { return host_app::save_settings(settings(value)); },
       [](int value) { return settings_text(settings(value)); }, loaded_settings,
       "machine file write failed", ""},
  };
  return values;
}

const StoredValue& stored_value(const std::string& name) {
  return *std::ranges::find(stored_values(), name, &StoredValue::name);
}
