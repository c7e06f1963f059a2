// What the service may ask of a worker: frames in a row, as the command pipe carries them, through
// the decoder and onto a host on a fake computer with a store of its own. Whatever decodes gets an
// answer that fits a response; the store stays readable; only Stop stops.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "connection/lists.h"
#include "control/keystore.h"
#include "control/settings.h"
#include "fuzz/require.h"
#include "host/server.h"
#include "tests/support/fake_platform.h"
#include "tests/support/fake_resolver.h"
#include "tests/support/fake_udp.h"
#include "tests/support/temporary_store.h"
#include "tests/support/virtual_time.h"
#include "worker/admin_commands.h"

namespace {

using namespace host_service;

constexpr std::uint8_t DEVICE_BYTE = 0x44;  // the paired device's key is nothing but these
constexpr int COMMANDS_MAX = 32;
constexpr int PASSWORDS_MAX = 1;  // each takes 64 MiB and its time

// The next frame of the row, cut as a reader of the pipe would; empty behind the last.
std::vector<unsigned char> next_frame(const std::uint8_t** data, std::size_t* size) {
  std::uint16_t verb = 0;
  std::uint32_t length = 0;
  if (!decode_header(*data, *size, &verb, &length)) return {};
  const std::size_t frame_size = std::min<std::size_t>(*size, HEADER_BYTES + length);
  std::vector<unsigned char> frame(*data, *data + frame_size);
  *data += frame_size;
  *size -= frame_size;
  return frame;
}

void check_answer(const Request& request, const host_app::Result& result, bool stop) {
  require(!encode_response(request.verb, result.status, result.text).empty(),
          "every answer fits a response");
  require(stop == (request.verb == Verb::Stop), "only Stop stops while the store is healthy");
  const bool is_plain = std::ranges::all_of(result.text, [](char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte == '\n' || (byte >= 32 && byte != 127);
  });
  require(is_plain, "no answer carries control characters");
}

void check_store() {
  keystore::load_clients();
  keystore::load_relays();
  host_app::load_settings();  // throws when what was stored doesn't decode
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  virtual_time::reset();
  fake_udp_reset();
  fake_resolvers().clear();
  const TemporaryStore store;
  lund_client_list clients;
  std::uint8_t device[LUND_KEY_SIZE];
  std::fill(std::begin(device), std::end(device), DEVICE_BYTE);
  lund_client_list_add(&clients, device, "Device");
  keystore::save_clients(clients);

  FakePlatform platform;
  platform.add_display("DP-1", 0);
  HostServer host({}, platform.displays[0], platform.record());
  require(host.open(nullptr), "the host opens");

  int passwords = 0;
  for (int i = 0; i < COMMANDS_MAX; ++i) {
    const std::vector<unsigned char> frame = next_frame(&data, &size);
    Request request;
    if (!decode_request(frame.data(), frame.size(), &request)) break;
    if (request.verb == Verb::SetPassword && ++passwords > PASSWORDS_MAX) continue;
    bool stop = false;
    const host_app::Result result = host_app::execute(host, request, &stop);
    check_answer(request, result, stop);
    host.conn_step();
    host.tick_step();
  }
  check_store();
  return 0;
}
