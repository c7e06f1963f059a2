// The client's side of pairing: ask the host what it offers, run the exchange by PIN or password,
// and go straight on to connecting.
#include <cstring>

#include "connection/byte_order.h"
#include "connection/conn_client_internal.h"

namespace client_engine {

namespace {

constexpr std::uint64_t PAIR_RETRY_US = 500 * MS;
constexpr std::uint64_t PAIR_DEADLINE_US = 15'000 * MS;
constexpr std::uint32_t PASSWORD_MEM_MAX_KIB = 262'144;  // what a host can make us allocate
constexpr std::size_t INFO_REQUEST_SIZE = 64;  // no shorter than most answers: nothing to amplify
constexpr std::size_t INFO_MIN_SIZE = 70;
constexpr std::size_t PAIR_FAIL_SIZE = 25;

// `status` of LUND_EV_CLIENT_PAIR_FAILED.
enum PairFailure : std::int32_t {
  WRONG_SECRET = 1,
  LOCKED = 2,
  NOT_AVAILABLE = 3,
  OTHER_KEY = 4,
  NO_ANSWER = 5,
};

void fail(lund_client& client, const char* reason, PairFailure status) {
  conn_log(&client.base, "pairing failed: %s", reason);
  lund_conn_event* event = conn_ev_push(&client.base, LUND_EV_CLIENT_PAIR_FAILED);
  event->status = status;
  event->kind = client.pairing.kind;
  client.mode = LUND_CLIENT_IDLE;
  forget_pairing(client);
}

// Derives the exchange's secret from the password by the host's parameters: 64 digits, for neither
// side puts the password itself into the exchange. False after having failed.
bool derive_password(lund_client& client, char secret_out[65]) {
  lund_client_pairing& pairing = client.pairing;
  if (pairing.capabilities & LUND_HOST_PASSWORD_LOCKED) {
    fail(client, "password pairing is locked on the host", LOCKED);
    return false;
  }
  std::uint8_t verifier[32];
  if (pairing.pw_mem_kib > PASSWORD_MEM_MAX_KIB ||
      lund_password_derive(verifier, pairing.secret, pairing.salt, pairing.pw_mem_kib,
                           pairing.pw_iterations) != 0) {
    fail(client, "bad password parameters from the host", NOT_AVAILABLE);
    return false;
  }
  lund_hex_encode(secret_out, verifier, sizeof verifier);
  lund_secure_wipe(verifier, sizeof verifier);
  pairing.password_tried = 1;
  return true;
}

// False after having failed.
bool start_exchange(lund_client& client, const char* secret) {
  lund_client_pairing& pairing = client.pairing;
  lund_pair_wipe(&pairing.pair);
  if (lund_pair_client_start(&pairing.pair, &client.base.keypair, client.base.name, secret,
                             pairing.init, sizeof pairing.init, &pairing.init_size) == LUND_OK)
    return true;
  fail(client, "random generator failed", NO_ANSWER);
  return false;
}

void pair_start(lund_client& client, std::uint64_t now) {
  lund_client_pairing& pairing = client.pairing;
  const bool has_password = pairing.capabilities & LUND_HOST_HAS_PASSWORD;
  const bool guessed = pairing.requested_kind == 0;
  if (pairing.kind == LUND_KIND_PIN && !(pairing.capabilities & LUND_HOST_PIN_OPEN)) {
    if (!guessed || !has_password)
      return fail(client, "the host is not in pairing mode", NOT_AVAILABLE);
    pairing.kind = LUND_KIND_PASSWORD;
  }
  const bool by_password = pairing.kind == LUND_KIND_PASSWORD;
  if (by_password && !has_password) return fail(client, "the host has no password", NOT_AVAILABLE);

  if (by_password) {
    char secret[65];
    const bool started = derive_password(client, secret) && start_exchange(client, secret);
    lund_secure_wipe(secret, sizeof secret);
    if (!started) return;
    pairing.init[3] = 1;
    now = lund_now_us();  // the derivation takes its time
  } else if (!start_exchange(client, pairing.secret)) {
    return;
  }
  pairing.stage = LUND_STAGE_INIT;
  pairing.next_send = now + PAIR_RETRY_US;
  pairing.deadline = now + PAIR_DEADLINE_US;
  conn_send(&client.base, pairing.host_addr, pairing.init, pairing.init_size);
  conn_log(&client.base, "pairing with %s", by_password ? "the password" : "the PIN");
}

// Six digits were taken for a PIN and refused: they may be a password. False if that can't be.
bool try_as_password(lund_client& client, std::uint64_t now) {
  lund_client_pairing& pairing = client.pairing;
  if (pairing.requested_kind != 0 || pairing.kind != LUND_KIND_PIN || pairing.password_tried ||
      !(pairing.capabilities & LUND_HOST_HAS_PASSWORD))
    return false;
  pairing.kind = LUND_KIND_PASSWORD;
  pair_start(client, now);
  return true;
}

void paired(lund_client& client, std::uint64_t now) {
  lund_client_pairing& pairing = client.pairing;
  if (!code_matches(client, pairing.pair.peer_key))
    return fail(client, "the host's key does not match the code", OTHER_KEY);
  std::memcpy(client.host_key, pairing.pair.peer_key, sizeof client.host_key);
  client.has_host_key = 1;

  lund_conn_event* event = conn_ev_push(&client.base, LUND_EV_CLIENT_PAIRED);
  event->kind = pairing.kind;
  event->addr = pairing.host_addr;
  std::memcpy(event->key, client.host_key, sizeof event->key);
  lund_key_id(event->key_id, client.host_key);
  conn_clean_name(event->name, pairing.pair.peer_name);
  char code[LUND_KEY_CODE_TEXT];
  lund_key_code(code, client.host_key);
  conn_log(&client.base, "paired with \"%s\" (%s)", event->name, code);
  forget_pairing(client);
  start_connect(client, now);
}

void take_pair_fail(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                    std::uint64_t now) {
  const bool header_clear = datagram[3] == 0 && load_le<std::uint32_t>(datagram + 4) == 0;
  if (size != PAIR_FAIL_SIZE || !header_clear ||
      std::memcmp(datagram + 8, client.pairing.pair.sid, LUND_PAIR_SID_SIZE) != 0)
    return;
  const std::uint8_t reason = datagram[24];
  if (reason == LUND_PAIR_FAIL_LOCKED) return fail(client, "too many attempts (locked)", LOCKED);
  if (try_as_password(client, now)) return;
  if (reason == LUND_PAIR_FAIL_UNAVAILABLE)
    return fail(client, "the host is not pairing", NOT_AVAILABLE);
  fail(client, "wrong PIN or password", WRONG_SECRET);
}

}  // namespace

bool code_matches(const lund_client& client, const std::uint8_t key[LUND_KEY_SIZE]) {
  if (client.has_host_key) return std::memcmp(client.host_key, key, LUND_KEY_SIZE) == 0;
  if (!client.has_code) return true;
  std::uint8_t id[LUND_KEY_ID_SIZE];
  lund_key_id(id, key);
  return std::memcmp(id, client.code, sizeof client.code) == 0;
}

int start_pairing(lund_client& client, const char* secret, std::uint32_t kind, std::uint64_t now) {
  lund_client_pairing& pairing = client.pairing;
  const std::size_t length = std::strlen(secret);
  if (length == 0 || length >= sizeof pairing.secret) return -1;
  forget_pairing(client);
  std::memcpy(pairing.secret, secret, length + 1);
  pairing.requested_kind = kind;
  pairing.kind = kind ? kind : static_cast<std::uint32_t>(lund_secret_guess_kind(secret));
  pairing.info_nonce = conn_random_u32();
  pairing.next_send = now;
  pairing.deadline = now + PAIR_DEADLINE_US;
  client.mode = LUND_CLIENT_PAIRING;
  start_servers(client, now);
  return 0;
}

void forget_pairing(lund_client& client) {
  lund_secure_wipe(&client.pairing, sizeof client.pairing);
}

void send_info_request(lund_client& client, const lund_rv_endpoint& to) {
  std::uint8_t request[INFO_REQUEST_SIZE] = {};
  lund_packet_header header;
  header.type = LUND_PKT_HOST_INFO_REQUEST;
  lund_encode_header(request, sizeof request, &header);
  store_le(request + 8, client.pairing.info_nonce);
  conn_send(&client.base, to, request, sizeof request);
}

// The answer's layout: nonce at 8, capabilities at 12, the password's parameters at 13, 17 and 21,
// the host's key at 37, its name, counted, at 69.
void take_host_info(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                    const lund_rv_endpoint& from, std::uint64_t now) {
  lund_client_pairing& pairing = client.pairing;
  if (client.mode != LUND_CLIENT_PAIRING || pairing.stage != LUND_STAGE_INFO) return;
  if (size < INFO_MIN_SIZE || datagram[3] != 0 || load_le<std::uint32_t>(datagram + 4) != 0 ||
      load_le<std::uint32_t>(datagram + 8) != pairing.info_nonce)
    return;
  const std::size_t name_size = datagram[69];
  if (name_size > LUND_NAME_MAX || INFO_MIN_SIZE + name_size != size) return;
  if (!code_matches(client, datagram + 37)) return;

  pairing.capabilities = datagram[12];
  pairing.pw_mem_kib = load_le<std::uint32_t>(datagram + 13);
  pairing.pw_iterations = load_le<std::uint32_t>(datagram + 17);
  std::memcpy(pairing.salt, datagram + 21, sizeof pairing.salt);
  std::memcpy(pairing.info_key, datagram + 37, sizeof pairing.info_key);
  pairing.host_addr = from;
  pair_start(client, now);
}

void take_pair_packet(lund_client& client, const std::uint8_t* datagram, std::size_t size,
                      const lund_rv_endpoint& from, std::uint64_t now) {
  lund_client_pairing& pairing = client.pairing;
  if (client.mode != LUND_CLIENT_PAIRING || pairing.stage == LUND_STAGE_INFO ||
      !lund_rv_endpoint_equal(from, pairing.host_addr))
    return;
  if (datagram[2] == LUND_PKT_PAIR_FAIL) return take_pair_fail(client, datagram, size, now);

  std::uint8_t answer[LUND_PAIR_MESSAGE_MAX];
  std::size_t answer_size = 0;
  const int result =
      lund_pair_handle(&pairing.pair, datagram, size, answer, sizeof answer, &answer_size);
  if (result == 1) {
    paired(client, now);
  } else if (result == 0 && answer_size > 0) {
    conn_send(&client.base, pairing.host_addr, answer, answer_size);
    pairing.stage = LUND_STAGE_CONFIRM;
  } else if (result == LUND_ERR_AUTH && datagram[2] == LUND_PKT_PAIR_RESP) {
    if (!try_as_password(client, now)) fail(client, "wrong PIN or password", WRONG_SECRET);
  }
}

void tick_pairing(lund_client& client, Tick& tick) {
  if (client.mode != LUND_CLIENT_PAIRING) return;
  lund_client_pairing& pairing = client.pairing;
  tick.urgent = true;
  if (tick.now >= pairing.deadline) {
    const bool answered = pairing.stage != LUND_STAGE_INFO;
    return fail(client, answered ? "the host stopped answering" : "no host answered", NO_ANSWER);
  }
  if (tick.now >= pairing.next_send) {
    pairing.next_send = tick.now + PAIR_RETRY_US;
    if (pairing.stage == LUND_STAGE_INFO) {
      for (const lund_client_path& path : client.paths)
        if (path_usable(client, path)) send_info_request(client, path.addr);
    } else if (pairing.stage == LUND_STAGE_INIT) {
      conn_send(&client.base, pairing.host_addr, pairing.init, pairing.init_size);
    } else {
      std::size_t size = 0;
      const std::uint8_t* message = lund_pair_last_message(&pairing.pair, &size);
      if (message) conn_send(&client.base, pairing.host_addr, message, size);
    }
  }
  tick.due(pairing.next_send);
}

}  // namespace client_engine
