#include "tests/system/secrets_support.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>

namespace system_test {

namespace {

// Where a secret's bytes are, or some of them: by the address of its first byte, with the mapping
// and the places in the secret of the pieces that are there.
std::map<std::uint64_t, std::string> find_secret(const ProcessImage& image, const Secret& secret) {
  std::map<std::uint64_t, std::string> found;
  const std::size_t last = secret.bytes.size() - secret.piece;
  for (std::size_t at = 0;; at = std::min(at + secret.piece, last)) {
    const std::string piece = secret.bytes.substr(at, secret.piece);
    for (const ImagePlace& place : image.find(bytes_of_text(piece))) {
      std::string& text = found[place.address - at];
      if (text.empty()) text = place.mapping + ", bytes";
      text += " " + std::to_string(at);
    }
    if (at == last) return found;
  }
}

bool is_at(const ProcessImage& image, std::uint64_t address, const std::string& bytes) {
  return std::ranges::equal(image.at(address, bytes.size()), bytes_of_text(bytes));
}

// What lies around an address, for people.
std::string surroundings(const ProcessImage& image, std::uint64_t address) {
  constexpr std::size_t BEFORE = 64, ALL = 192, LINE = 32;
  const std::span<const std::uint8_t> bytes = image.at(address - BEFORE, ALL);
  std::string text;
  for (std::size_t at = 0; at + LINE <= bytes.size(); at += LINE) {
    char offset[32];
    std::snprintf(offset, sizeof offset, "\n    %+4td ",
                  static_cast<std::ptrdiff_t>(at) - static_cast<std::ptrdiff_t>(BEFORE));
    text += offset + hex_of(bytes.subspan(at, LINE));
  }
  return text;
}

}  // namespace

std::string not_searched() {
#if defined(__SANITIZE_ADDRESS__)
  return "under this sanitizer stack frames and freed memory are the sanitizer's";
#else
  return {};
#endif
}

std::string text_of(std::span<const std::uint8_t> bytes) {
  return {bytes.begin(), bytes.end()};
}

std::string hex_of(std::span<const std::uint8_t> bytes) {
  std::string text(2 * bytes.size() + 1, '\0');
  lund_hex_encode(text.data(), bytes.data(), bytes.size());
  text.pop_back();
  return text;
}

std::set<std::uint64_t> addresses(const Secret& secret, std::uint64_t record) {
  std::set<std::uint64_t> all;
  for (const Member held : secret.held_in) all.insert(record + held);
  return all;
}

std::uint64_t find_record(const ProcessImage& image, const Secrets& secrets) {
  const auto holds_all = [&](std::uint64_t record) {
    return std::ranges::all_of(secrets, [&](const auto& named) {
      return std::ranges::all_of(addresses(named.second, record), [&](std::uint64_t address) {
        return is_at(image, address, named.second.bytes);
      });
    });
  };
  const auto held = std::ranges::find_if(
      secrets, [](const auto& named) { return !named.second.held_in.empty(); });
  for (const ImagePlace& place : image.find(bytes_of_text(held->second.bytes))) {
    const std::uint64_t record = place.address - *held->second.held_in.begin();
    if (holds_all(record)) return record;
  }
  ADD_FAILURE() << "no record holds all that it should";
  return 0;
}

void expect_only(const ProcessImage& image, const std::string& name, const Secret& secret,
                 const std::set<std::uint64_t>& expected) {
  for (const std::uint64_t address : expected)
    EXPECT_TRUE(is_at(image, address, secret.bytes)) << name << " is not where it is needed";
  for (const auto& [address, what] : find_secret(image, secret))
    if (!expected.contains(address))
      ADD_FAILURE() << name << " is left at " << std::hex << address << " " << what
                    << surroundings(image, address);
}

void expect_in_record_only(const ProcessImage& image, const Secrets& secrets) {
  const std::uint64_t record = find_record(image, secrets);
  for (const auto& [name, secret] : secrets)
    expect_only(image, name, secret, addresses(secret, record));
}

void expect_nowhere(const ProcessImage& image, const Secrets& secrets) {
  for (const auto& [name, secret] : secrets) expect_only(image, name, secret, {});
}

std::string new_places(const ProcessImage& before, const ProcessImage& after,
                       const std::string& text, const std::set<std::uint64_t>& known) {
  std::string places;
  for (const ImagePlace& place : after.find(bytes_of_text(text))) {
    if (!is_at(before, place.address, text) && !known.contains(place.address))
      places += "\n" + place.mapping + surroundings(after, place.address);
  }
  return places;
}

}  // namespace system_test
