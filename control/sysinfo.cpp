#include "control/sysinfo.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <stdexcept>
#include <string_view>

#include "connection/clock.h"
#include "control/adapters.h"
#include "control/keystore.h"
#include "control/log.h"
#include "control/store_platform.h"
#include "control/sysinfo_platform.h"
#include "control/system_random.h"
#include "socket_types.h"

namespace {

constexpr std::size_t HOST_ID_LIMIT_BYTES = 256;
constexpr const char* HOST_ID = "host_id";

std::array<std::uint8_t, 4> octets(std::uint32_t address) {
  return std::bit_cast<std::array<std::uint8_t, 4>>(address);
}

bool is_link_local(std::uint32_t address) {
  return octets(address)[0] == 169 && octets(address)[1] == 254;
}

int rank(const Adapter& adapter) {
  return adapter.ethernet ? 0 : adapter.wifi ? 1 : 2;
}

std::uint32_t draw_host_id() {
  std::uint32_t id = 0;
  while (id == 0) id = random_u32();
  return id;
}

// Damage here is fatal, since a machine that changes its number is a stranger to its clients.
std::uint32_t machine_host_id() {
  std::string text;
  if (keystore::readHostFile(HOST_ID, &text)) {
    const std::uint32_t id = parse_host_id(text, "\r\n");
    if (id != 0) return id;
    keystore::failHostStore("machine host id malformed");
    throw std::runtime_error("machine host id malformed");
  }
  const std::uint32_t id = draw_host_id();
  const std::string digits = std::to_string(id);
  if (!keystore::writeHostFile(HOST_ID, digits.data(), digits.size())) {
    throw std::runtime_error("machine host id persistence failed");
  }
  return id;
}

bool save_user_host_id(const std::filesystem::path& path, std::uint32_t id) {
  const std::string digits = std::to_string(id);
  std::filesystem::path temporary = path;
  temporary += ".tmp";
  store_platform::remove_file(temporary);  // a crash may have left one
  if (!store_platform::create_file(temporary, digits.data(), digits.size())) return false;
  if (store_platform::replace_file(temporary, path)) return true;
  store_platform::remove_file(temporary);
  return false;
}

std::uint32_t user_host_id() {
  const std::filesystem::path path = app_data_dir() / HOST_ID;
  std::string text;
  if (store_platform::read_file(path, HOST_ID_LIMIT_BYTES, &text) == store_platform::Read::Ok) {
    const std::uint32_t stored = parse_host_id(text, "\r\n ");
    if (stored != 0) return stored;
  }
  const std::uint32_t id = draw_host_id();
  if (!save_user_host_id(path, id)) hlog("warning: could not persist the host id");
  return id;
}

}  // namespace

std::filesystem::path app_data_dir() {
  std::filesystem::path directory = keystore::hostStoreDirectory();
  if (keystore::hostStoreScope() == keystore::Machine) return directory;
  if (directory.empty()) directory = sysinfo_platform::RELATIVE_DATA_DIRECTORY;
  store_platform::make_directory(directory);
  return directory;
}

std::uint32_t random_u32() {
  std::uint32_t drawn = 0;
  if (system_random(&drawn, sizeof(drawn))) return drawn;
  return sysinfo_platform::process_id() ^ static_cast<std::uint32_t>(lund_wall_us());
}

std::string computer_name_utf8() {
  std::string name = sysinfo_platform::computer_name();
  return name.empty() ? sysinfo_platform::UNNAMED_COMPUTER : name;
}

std::uint32_t load_or_create_host_id() {
  return keystore::hostStoreScope() == keystore::Machine ? machine_host_id() : user_host_id();
}

std::string ipv4_text(std::uint32_t address) {
  char text[INET_ADDRSTRLEN];
  return inet_ntop(AF_INET, &address, text, sizeof text) != nullptr ? text : std::string();
}

std::uint32_t parse_host_id(const std::string& text, const char* trailing) {
  std::uint32_t id = 0;
  const char* const end = text.data() + text.size();
  const auto [behind, error] = std::from_chars(text.data(), end, id);
  const std::string_view rest(behind, static_cast<std::size_t>(end - behind));
  const bool whole = rest.find_first_not_of(trailing) == std::string_view::npos;
  return error == std::errc() && whole ? id : 0;
}

std::vector<Adapter> reachable_adapters(const std::vector<Adapter>& adapters) {
  std::vector<Adapter> reachable;
  std::ranges::copy_if(adapters, std::back_inserter(reachable), [](const Adapter& adapter) {
    return adapter.up && !adapter.loopback && !is_link_local(adapter.address);
  });
  return reachable;
}

std::vector<std::string> ranked_address_texts(std::vector<Adapter> adapters) {
  std::ranges::stable_sort(adapters, {}, rank);
  std::vector<std::string> texts;
  for (const Adapter& adapter : adapters) {
    texts.push_back(ipv4_text(adapter.address));
    if (!adapter.name.empty()) texts.back() += " (" + adapter.name + ")";
  }
  return texts;
}

std::vector<LocalInterface> local_ipv4_interfaces() {
  std::vector<LocalInterface> interfaces;
  for (const Adapter& adapter : reachable_adapters(system_adapters())) {
    interfaces.push_back({adapter.address, adapter.mask, adapter.ethernet});
  }
  return interfaces;
}

std::vector<std::string> lan_ipv4_addresses() {
  return ranked_address_texts(reachable_adapters(system_adapters()));
}
