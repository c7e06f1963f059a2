// Pairing on the host's side: one exchange context for the PIN, one for the password, each with its
// attempt limit. A PIN is for one device and is replaced when its attempts are used up; a password
// is for many and locks for a time instead.
#include <cstring>

#include "connection/byte_order.h"
#include "connection/conn_host_internal.h"
#include "connection/protocol.h"

namespace {

constexpr int DEFAULT_ATTEMPTS = 10;
constexpr int DEFAULT_LOCK_SECONDS = 600;

constexpr std::size_t PAIR_INIT_SIZE = 56;
constexpr std::size_t SID_AT = 8;  // in every pairing packet
constexpr std::uint8_t PAIR_FLAG_PASSWORD = 1;

constexpr std::size_t INFO_REQUEST_SIZE = 64;  // padded, so that the answer isn't much longer
constexpr std::size_t INFO_SIZE = 70;          // without the name
constexpr std::uint8_t INFO_PIN_OPEN = 1;
constexpr std::uint8_t INFO_HAS_PASSWORD = 2;
constexpr std::uint8_t INFO_PASSWORD_LOCKED = 4;

// One of the two ways to pair.
struct pair_way {
  lund_pair_kind kind;
  lund_pair* pair;
  lund_pair_attempt* attempt;

  bool by_pin() const { return kind == LUND_KIND_PIN; }
  const char* text() const { return by_pin() ? "PIN" : "password"; }
};

pair_way pin_way(lund_host* host) {
  return {LUND_KIND_PIN, &host->pairing.pin_pair, &host->pairing.pin_attempt};
}

pair_way password_way(lund_host* host) {
  return {LUND_KIND_PASSWORD, &host->pairing.password_pair, &host->pairing.password_attempt};
}

// A uniform draw of six digits; false when the random source fails.
bool draw_pin(char pin[8]) {
  constexpr std::size_t PIN_DIGITS = 6;
  constexpr std::uint32_t LAST_UNSKEWED = 4'293'999'999;  // a multiple of 1,000,000 less one
  std::uint8_t bytes[4];
  std::uint32_t drawn;
  do {
    if (lund_random_bytes(bytes, sizeof bytes) != LUND_OK) return false;
    drawn = load_le<std::uint32_t>(bytes);
  } while (drawn > LAST_UNSKEWED);
  lund_secure_wipe(bytes, sizeof bytes);
  // By hand: printf would leave the digits behind in its own buffer.
  pin[PIN_DIGITS] = '\0';
  for (std::size_t digit = PIN_DIGITS; digit-- > 0; drawn /= 10)
    pin[digit] = static_cast<char>('0' + drawn % 10);
  return true;
}

void new_pin(lund_host* host) {
  lund_host_pairing& pairing = host->pairing;
  pairing.pin_attempt = {};
  if (!draw_pin(pairing.pin)) {  // rather no pairing than a PIN that can be foretold
    lund_pair_wipe(&pairing.pin_pair);
    conn_host_pairing_close(host, "no random numbers");
    return;
  }
  lund_pair_host_init(&pairing.pin_pair, &host->base.keypair, host->base.name, pairing.pin,
                      pairing.pin_attempts);
}

void forget_pin(lund_host_pairing& pairing) {
  lund_secure_wipe(pairing.pin, sizeof pairing.pin);
  lund_pair_forget_secret(&pairing.pin_pair);
}

// The exchange's secret is the verifier in hexadecimal: the password itself isn't known here.
void build_password_context(lund_host* host) {
  lund_host_pairing& pairing = host->pairing;
  char secret[2 * sizeof pairing.pw_verifier + 1];
  lund_hex_encode(secret, pairing.pw_verifier, sizeof pairing.pw_verifier);
  lund_pair_host_init(&pairing.password_pair, &host->base.keypair, host->base.name, secret,
                      pairing.password_attempts);
  lund_secure_wipe(secret, sizeof secret);
  pairing.password_attempt = {};
}

void install_password(lund_host* host, const lund_password_record& record) {
  lund_host_pairing& pairing = host->pairing;
  std::memcpy(pairing.pw_salt, record.salt, sizeof pairing.pw_salt);
  std::memcpy(pairing.pw_verifier, record.verifier, sizeof pairing.pw_verifier);
  pairing.pw_mem_kib = record.mem_kib;
  pairing.pw_iterations = record.iterations;
  pairing.has_password = 1;
  pairing.password_locked_until = 0;
  build_password_context(host);
}

void load_password(lund_host* host, const char* blob) {
  lund_password_record record;
  if (lund_password_blob_parse(&record, blob) == 0)
    install_password(host, record);
  else
    conn_log(&host->base, "stored password is unreadable; password pairing is off");
  lund_secure_wipe(&record, sizeof record);
}

bool password_locked(const lund_host* host, std::uint64_t now) {
  return now < host->pairing.password_locked_until;
}

bool same_sid(const lund_pair& pair, const std::uint8_t* datagram) {
  return std::memcmp(pair.sid, datagram + SID_AT, LUND_PAIR_SID_SIZE) == 0;
}

void push_failed(lund_host* host, const pair_way& way, std::int32_t status,
                 const lund_rv_endpoint& from) {
  lund_conn_event* event = conn_ev_push(&host->base, LUND_EV_PAIR_ATTEMPT_FAILED);
  event->status = status;
  event->kind = way.kind;
  event->addr = from;
}

void fail_attempt(lund_host* host, const pair_way& way, const char* reason) {
  if (way.attempt->active == 0) return;
  way.attempt->active = 0;
  char address[LUND_ADDR_TEXT];
  conn_log(&host->base, "pairing attempt %u (%s) from %s failed: %s", way.attempt->number,
           way.text(), conn_addr_str(way.attempt->from, address, sizeof address), reason);
  push_failed(host, way, 1, way.attempt->from);
}

// The attempts on this secret are used up: the PIN is replaced, the password locked.
void lock_way(lund_host* host, const pair_way& way, const lund_rv_endpoint& from,
              std::uint64_t now) {
  lund_host_pairing& pairing = host->pairing;
  fail_attempt(host, way, "no confirmation");
  push_failed(host, way, 2, from);
  char address[LUND_ADDR_TEXT];
  conn_addr_str(from, address, sizeof address);
  const int attempts = way.pair->attempts;
  if (way.by_pin()) {
    conn_log(&host->base, "PIN pairing locked after %d attempts (last from %s): new PIN", attempts,
             address);
    new_pin(host);
    conn_ev_push(&host->base, LUND_EV_PIN_CHANGED);
  } else {
    pairing.password_locked_until = now + pairing.password_lock_duration;
    conn_log(&host->base, "password pairing locked for %llu s after %d attempts (last from %s)",
             static_cast<unsigned long long>(pairing.password_lock_duration / SECOND_US), attempts,
             address);
  }
}

void begin_attempt(lund_host* host, const pair_way& way, const lund_rv_endpoint& from,
                   std::uint64_t now) {
  fail_attempt(host, way, "replaced by a new attempt");
  lund_pair_attempt& attempt = *way.attempt;
  attempt.active = 1;
  attempt.number = way.pair->attempts;
  std::memcpy(attempt.sid, way.pair->sid, sizeof attempt.sid);
  attempt.started_at = now;
  attempt.from = from;
  if (!way.by_pin()) host->pairing.last_password_attempt = now;
  char address[LUND_ADDR_TEXT];
  conn_log(&host->base, "pairing attempt %u/%d (%s) from %s", attempt.number,
           int{way.pair->max_attempts}, way.text(), conn_addr_str(from, address, sizeof address));
  lund_conn_event* event = conn_ev_push(&host->base, LUND_EV_PAIR_ATTEMPT);
  event->status = static_cast<std::int32_t>(attempt.number);
  event->kind = way.kind;
  event->addr = from;
}

void send_fail(lund_host* host, const std::uint8_t* datagram, std::uint8_t reason,
               const lund_rv_endpoint& from, std::uint64_t now) {
  if (!conn_rate_pass(&host->pair_fail_limit, PAIR_FAIL_RATE, now)) return;
  std::uint8_t fail[32];
  conn_send(&host->base, from, fail,
            lund_pair_encode_fail(fail, sizeof fail, datagram + SID_AT, reason));
}

// Why a way to pair refuses a request, or 0.
std::uint8_t refusal(const lund_host* host, bool by_password, std::uint64_t now) {
  const lund_host_pairing& pairing = host->pairing;
  if (!by_password) return pairing.pairing_open != 0 ? 0 : LUND_PAIR_FAIL_UNAVAILABLE;
  if (pairing.has_password == 0) return LUND_PAIR_FAIL_UNAVAILABLE;
  return password_locked(host, now) ? LUND_PAIR_FAIL_LOCKED : 0;
}

// A password can be guessed once a second at best. What the context would answer from its stored
// message is no guess; the id of a failed exchange is one again.
bool guessing_too_fast(const lund_host* host, const std::uint8_t* datagram, std::uint64_t now) {
  const lund_host_pairing& pairing = host->pairing;
  const lund_pair& pair = pairing.password_pair;
  const bool answered = pair.state == LUND_PAIR_RESP_SENT || pair.state == LUND_PAIR_DONE;
  if (answered && same_sid(pair, datagram)) return false;
  return pairing.last_password_attempt != 0 &&
         now - pairing.last_password_attempt < PASSWORD_ATTEMPT_GAP_US;
}

void finish_pairing(lund_host* host, const pair_way& way, const lund_rv_endpoint& from) {
  *way.attempt = {};
  const std::uint8_t* key = way.pair->peer_key;
  const bool listed = conn_host_client_add(host, key, way.pair->peer_name) >= 0;
  char name[64];
  char code[LUND_KEY_CODE_TEXT];
  char address[LUND_ADDR_TEXT];
  conn_clean_name(name, way.pair->peer_name);
  lund_key_code(code, key);
  conn_log(&host->base, "paired with \"%s\" (%s) from %s using the %s%s", name, code,
           conn_addr_str(from, address, sizeof address), way.text(),
           listed ? "" : " BUT THE LIST IS FULL");
  if (!listed) return;
  lund_conn_event* event = conn_ev_push(&host->base, LUND_EV_PAIRED);
  event->kind = way.kind;
  event->addr = from;
  conn_host_event_key(event, key);
  std::memcpy(event->name, name, sizeof event->name);
  way.pair->attempts = 0;
  if (way.by_pin()) conn_host_pairing_close(host, "paired");
}

void expire_attempt(lund_host* host, const pair_way& way, std::uint64_t now, const char* reason) {
  if (way.attempt->active != 0 && now - way.attempt->started_at > PAIR_ATTEMPT_LIFE_US)
    fail_attempt(host, way, reason);
}

}  // namespace

void conn_host_pairing_init(lund_host* host, const lund_host_config* config,
                            const char* password_blob, bool has_clients) {
  lund_host_pairing& pairing = host->pairing;
  pairing.pin_attempts = config->pin_attempts < 1 ? DEFAULT_ATTEMPTS : config->pin_attempts;
  pairing.password_attempts =
      config->password_attempts < 1 ? DEFAULT_ATTEMPTS : config->password_attempts;
  const int lock_seconds =
      config->password_lock_seconds < 1 ? DEFAULT_LOCK_SECONDS : config->password_lock_seconds;
  pairing.password_lock_duration = static_cast<std::uint64_t>(lock_seconds) * SECOND_US;
  if (password_blob != nullptr && password_blob[0] != '\0') load_password(host, password_blob);
  pairing.pairing_open = has_clients ? 0 : 1;
  new_pin(host);
  if (has_clients) forget_pin(pairing);
}

void conn_host_info_request(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                            const lund_rv_endpoint& from, std::uint64_t now) {
  if (size != INFO_REQUEST_SIZE || datagram[3] != 0 || load_le<std::uint32_t>(datagram + 4) != 0)
    return;
  if (!conn_rate_pass(&host->info_limit, INFO_RATE, now)) return;
  const lund_host_pairing& pairing = host->pairing;
  std::uint8_t info[INFO_SIZE + LUND_NAME_MAX] = {};
  const lund_packet_header header{LUND_PKT_HOST_INFO, 0, 0};
  lund_encode_header(info, sizeof info, &header);
  std::memcpy(info + 8, datagram + 8, 4);  // nonce
  if (pairing.pairing_open != 0) info[12] |= INFO_PIN_OPEN;
  if (password_locked(host, now)) info[12] |= INFO_PASSWORD_LOCKED;
  if (pairing.has_password != 0) {
    info[12] |= INFO_HAS_PASSWORD;
    store_le(info + 13, pairing.pw_mem_kib);
    store_le(info + 17, pairing.pw_iterations);
    std::memcpy(info + 21, pairing.pw_salt, sizeof pairing.pw_salt);
  }
  std::memcpy(info + 37, host->base.keypair.public_key, LUND_KEY_SIZE);
  const std::size_t name_size = std::strlen(host->base.name);
  info[69] = static_cast<std::uint8_t>(name_size);
  std::memcpy(info + INFO_SIZE, host->base.name, name_size);
  conn_send(&host->base, from, info, INFO_SIZE + name_size);
}

void conn_host_pair_init(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                         const lund_rv_endpoint& from, std::uint64_t now) {
  if (size != PAIR_INIT_SIZE || datagram[3] > PAIR_FLAG_PASSWORD ||
      load_le<std::uint32_t>(datagram + 4) != 0)
    return;
  if (!conn_rate_pass(&host->pair_limit, PAIR_RATE, now)) return;
  const bool by_password = datagram[3] == PAIR_FLAG_PASSWORD;
  if (const std::uint8_t reason = refusal(host, by_password, now)) {
    send_fail(host, datagram, reason, from, now);
    return;
  }
  if (by_password && guessing_too_fast(host, datagram, now)) return;

  std::uint8_t request[PAIR_INIT_SIZE];  // as the exchange knows it: without our flag
  std::memcpy(request, datagram, sizeof request);
  request[3] = 0;
  const pair_way way = by_password ? password_way(host) : pin_way(host);
  const int attempts_before = way.pair->attempts;
  std::uint8_t answer[LUND_PAIR_MESSAGE_MAX];
  std::size_t answer_size = 0;
  const int result =
      lund_pair_handle(way.pair, request, sizeof request, answer, sizeof answer, &answer_size);
  if (result == LUND_ERR_LOCKED)
    lock_way(host, way, from, now);
  else if (result != LUND_OK)
    return;
  else if (way.pair->attempts != attempts_before)
    begin_attempt(host, way, from, now);
  conn_send(&host->base, from, answer, answer_size);
}

void conn_host_pair_confirm(lund_host* host, const std::uint8_t* datagram, std::size_t size,
                            const lund_rv_endpoint& from) {
  if (size < SID_AT + LUND_PAIR_SID_SIZE) return;
  const lund_host_pairing& pairing = host->pairing;
  const bool for_pin = pairing.pin_pair.role != 0 && same_sid(pairing.pin_pair, datagram);
  if (!for_pin && (pairing.has_password == 0 || !same_sid(pairing.password_pair, datagram))) return;
  const pair_way way = for_pin ? pin_way(host) : password_way(host);
  std::uint8_t answer[LUND_PAIR_MESSAGE_MAX];
  std::size_t answer_size = 0;
  const int result =
      lund_pair_handle(way.pair, datagram, size, answer, sizeof answer, &answer_size);
  // Without a limit: whoever gets here knows the exchange's id.
  conn_send(&host->base, from, answer, answer_size);
  if (result == LUND_ERR_AUTH) fail_attempt(host, way, "bad confirmation");
  if (result == 1) finish_pairing(host, way, from);
}

void conn_host_pairing_close(lund_host* host, const char* why) {
  lund_host_pairing& pairing = host->pairing;
  if (pairing.pairing_open == 0) return;
  pairing.pairing_open = 0;
  forget_pin(pairing);
  conn_log(&host->base, "pairing closed (%s)", why);
  conn_ev_push(&host->base, LUND_EV_PAIRING_CLOSED);
}

void conn_host_pairing_tick(lund_host* host, std::uint64_t now) {
  lund_host_pairing& pairing = host->pairing;
  if (pairing.pairing_deadline != 0 && now >= pairing.pairing_deadline)
    conn_host_pairing_close(host, "timed out");
  // A client that saw the wrong secret just stops: its silence is the only sign of it.
  expire_attempt(host, pin_way(host), now, "no confirmation (wrong PIN?)");
  expire_attempt(host, password_way(host), now, "no confirmation (wrong password?)");
  if (pairing.password_locked_until != 0 && now >= pairing.password_locked_until) {
    pairing.password_locked_until = 0;
    if (pairing.has_password != 0) build_password_context(host);
    conn_log(&host->base, "password pairing unlocked");
  }
}

void lund_host_pairing_open(lund_host* host, std::uint32_t seconds) {
  const std::lock_guard lock(host->base.lock);
  const std::uint64_t duration = seconds == 0 ? PAIRING_OPEN_SECONDS : seconds;
  host->pairing.pairing_open = 1;
  host->pairing.pairing_deadline = lund_now_us() + duration * SECOND_US;
  new_pin(host);
}

void lund_host_pairing_close(lund_host* host) {
  const std::lock_guard lock(host->base.lock);
  conn_host_pairing_close(host, "by request");
}

void lund_host_pairing_status(lund_host* host, lund_pairing_status* status) {
  *status = {};
  const std::lock_guard lock(host->base.lock);
  const std::uint64_t now = lund_now_us();
  const lund_host_pairing& pairing = host->pairing;
  lund_key_code(status->key_code, host->base.keypair.public_key);
  status->has_password = pairing.has_password;
  status->password_locked = password_locked(host, now) ? 1 : 0;
  status->open = pairing.pairing_open;
  if (status->open == 0) return;
  std::memcpy(status->pin, pairing.pin, sizeof status->pin);
  if (pairing.pairing_deadline > now)
    status->seconds_left =
        static_cast<std::uint32_t>((pairing.pairing_deadline - now + SECOND_US - 1) / SECOND_US);
}

int lund_host_set_password(lund_host* host, const char* password, char* blob_out,
                           std::size_t blob_capacity) {
  if (password == nullptr || password[0] == '\0' || blob_capacity < LUND_PASSWORD_BLOB_MAX)
    return -1;
  lund_password_record record;
  record.mem_kib = LUND_PASSWORD_MEM_KIB;
  record.iterations = LUND_PASSWORD_ITERATIONS;
  int result = -1;
  if (lund_random_bytes(record.salt, sizeof record.salt) == LUND_OK &&
      lund_password_derive(record.verifier, password, record.salt, record.mem_kib,
                           record.iterations) == 0 &&
      lund_password_blob_format(blob_out, blob_capacity, &record) != 0) {
    const std::lock_guard lock(host->base.lock);
    install_password(host, record);
    conn_log(&host->base, "pairing password set");
    result = 0;
  }
  lund_secure_wipe(&record, sizeof record);
  return result;
}

void lund_host_clear_password(lund_host* host) {
  const std::lock_guard lock(host->base.lock);
  lund_host_pairing& pairing = host->pairing;
  pairing.has_password = 0;
  lund_secure_wipe(pairing.pw_verifier, sizeof pairing.pw_verifier);
  lund_pair_wipe(&pairing.password_pair);
  pairing.password_attempt = {};
  conn_log(&host->base, "pairing password cleared");
}
