#include "control/keystore_inspect.h"

#include "connection/lists.h"
#include "control/keystore_internal.h"

namespace keystore {

namespace {

using namespace internal;
using State = StoredFile::State;

bool is_identity(const std::string& text) {
  lund_keypair identity;
  return lund_identity_load(&identity, text.c_str()) == 0;
}

bool is_client_list(const std::string& text) {
  lund_client_list clients;
  return lund_client_list_load(&clients, text.data(), text.size()) == 0;
}

bool is_password(const std::string& text) {
  Wiped<lund_password_record> record;
  return lund_password_blob_parse(&record.value, text.c_str()) == 0;
}

bool is_relay_list(const std::string& text) {
  lund_relay_config relays;
  return lund_relay_config_load(&relays, text.data(), text.size()) == 0;
}

struct Kind {
  const char* name;
  Read (*read)(const char* name, std::string* text);
  bool (*is_whole)(const std::string& text);
};
constexpr Kind KINDS[] = {
    {"identity", read_protected, is_identity},
    {"authorized_clients", read_plain, is_client_list},
    {"pairing_password", read_protected, is_password},
    {"relays", read_protected, is_relay_list},
};

State state_of(const Kind& kind) {
  Secret text;
  switch (kind.read(kind.name, &text.value)) {
    case Read::Missing:
      return State::Missing;
    case Read::Failed:
      return State::Unreadable;
    case Read::Ok:
      break;
  }
  return kind.is_whole(text.value) ? State::Whole : State::Malformed;
}

}  // namespace

std::vector<StoredFile> inspect_store() {
  std::vector<StoredFile> files;
  for (const Kind& kind : KINDS) files.push_back({kind.name, state_of(kind)});
  return files;
}

}  // namespace keystore
