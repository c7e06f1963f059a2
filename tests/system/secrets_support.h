// What the tests of secrets in memory share: secrets, the records of the engines, which may hold
// some, and the search for them in a process. One thread.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <span>
#include <string>

#include "connection/secure.h"
#include "tests/support/linux/process_image.h"

namespace system_test {

// Why memory isn't looked through in this build; empty when it is.
std::string not_searched();

using Member = std::size_t;  // a member's place in its record

// As in member_of<lund_host>([](auto& host) -> auto& { return host.base.keypair; }).
template <typename Record, typename Select>
Member member_of(Select select) {
  static const Record& record = *new Record;
  return static_cast<Member>(reinterpret_cast<const char*>(&select(record)) -
                             reinterpret_cast<const char*>(&record));
}

struct Secret {
  std::string bytes;
  // Memory that is given back is written over in part, so what is looked for is pieces of it: long
  // enough that none is there by chance.
  std::size_t piece = 8;
  std::set<Member> held_in = {};  // of a record
};
inline constexpr std::size_t HEX_PIECE = 16;
using Secrets = std::map<std::string, Secret>;  // by what they are called

std::string text_of(std::span<const std::uint8_t> bytes);
std::string hex_of(std::span<const std::uint8_t> bytes);

// The record that holds each of these at its members.
std::uint64_t find_record(const ProcessImage& image, const Secrets& secrets);
// The secret is whole at these addresses, and nothing of it anywhere else.
void expect_only(const ProcessImage& image, const std::string& name, const Secret& secret,
                 const std::set<std::uint64_t>& expected);
// Of each, in the one record.
void expect_in_record_only(const ProcessImage& image, const Secrets& secrets);
void expect_nowhere(const ProcessImage& image, const Secrets& secrets);
// The members that hold a secret, by their addresses.
std::set<std::uint64_t> addresses(const Secret& secret, std::uint64_t record);

// Where the text is now and was not before, but for the places known; in words.
std::string new_places(const ProcessImage& before, const ProcessImage& after,
                       const std::string& text, const std::set<std::uint64_t>& known);

}  // namespace system_test
