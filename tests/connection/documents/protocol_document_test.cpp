// docs/protocol.md and docs/protocol-rendezvous.md say what the code does: each of their examples
// is made anew by the code, and their tables of packets, timings and limits are held against the
// sources.
//
// LUND_REWRITE_DOCUMENTS=1 in the environment writes the examples into the pages.
#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "tests/connection/documents/page.h"
#include "tests/connection/documents/protocol_examples.h"
#include "tests/connection/documents/source_constants.h"

namespace {

constexpr char MAIN_PAGE[] = "docs/protocol.md";
constexpr const char* PAGES[] = {MAIN_PAGE, "docs/protocol-rendezvous.md"};

const Examples& examples() {
  static const Examples made = [] {
    Examples all;
    protocol_examples::add_key_material(all);
    protocol_examples::add_session_packets(all);
    protocol_examples::add_media_packets(all);
    protocol_examples::add_pairing(all);
    protocol_examples::add_handshake(all);
    protocol_examples::add_rendezvous(all);
    return all;
  }();
  return made;
}

// Of the code: every packet type's number by the name that the page gives it.
std::map<std::string, int> packet_types() {
  std::map<std::string, int> types = source_enumerators("connection/protocol.h", "LUND_PKT_");
  for (const auto& [name, type] : source_enumerators("connection/rendezvous.h", "LUND_RV_"))
    types["RV_" + name] = type;
  return types;
}

struct PacketRow {
  int type;
  std::string size;
};

std::map<std::string, PacketRow> packet_rows() {
  std::map<std::string, PacketRow> rows;
  for (const Page::Row& row : Page(MAIN_PAGE).table("Packet types"))
    rows[plain(row.at(1))] = {std::stoi(row.at(0)), row.at(4)};
  return rows;
}

}  // namespace

TEST(ProtocolDocument, EveryExampleIsWhatTheCodeMakes) {
  std::map<std::string, std::string> shown;
  for (const char* path : PAGES) {
    if (std::getenv("LUND_REWRITE_DOCUMENTS") != nullptr) Page(path).rewrite(examples().texts());
    const Page page(path);
    for (const auto& [name, text] : page.examples())
      EXPECT_TRUE(shown.emplace(name, text).second) << "\"" << name << "\" stands twice";
  }
  for (const auto& [name, example] : examples().all()) {
    if (!shown.contains(name))
      ADD_FAILURE() << "the pages lack this example:\n```hex " << name << "\n"
                    << example.text << "```";
    else
      EXPECT_EQ(shown.at(name), example.text) << "the example \"" << name << "\"";
  }
  for (const auto& [name, text] : shown)
    EXPECT_TRUE(examples().all().contains(name)) << "no code makes the example \"" << name << "\"";
}

TEST(ProtocolDocument, ThePacketTableHasEveryTypeOfTheCodeAndNoOther) {
  const auto rows = packet_rows();
  const auto types = packet_types();
  for (const auto& [name, type] : types) {
    ASSERT_TRUE(rows.contains(name)) << "the table lacks " << name;
    EXPECT_EQ(rows.at(name).type, type) << name;
  }
  for (const auto& [name, row] : rows) EXPECT_TRUE(types.contains(name)) << name;
}

TEST(ProtocolDocument, EveryPacketHasAnExampleOfTheTypeAndSizeInTheTable) {
  for (const auto& [name, row] : packet_rows()) {
    const auto found = examples().all().find(name);
    ASSERT_NE(found, examples().all().end()) << "no example of " << name;
    const Examples::Entry& example = found->second;
    EXPECT_EQ(std::stoul(row.size), example.fixed_size) << name;
    EXPECT_EQ(row.size.find('+') != row.size.npos, example.variable) << name << ": " << row.size;
    EXPECT_EQ(row.type, example.type) << name;
  }
}

TEST(ProtocolDocument, TimingsAndLimitsAreTheConstantsThatTheyName) {
  std::set<std::string> seen;
  const auto check = [&](const Page& page, const char* heading) {
    for (const Page::Row& row : page.table(heading)) {
      ASSERT_EQ(row.size(), 4u) << heading << ": " << row.at(0);
      const std::string constant = plain(row.at(2)), file = plain(row.at(3));
      EXPECT_TRUE(seen.insert(file + constant).second) << constant << " stands twice";
      EXPECT_EQ(quantity(row.at(1), constant), source_constant(file, constant))
          << row.at(0) << ": " << constant << " of " << file;
    }
  };
  for (const char* path : PAGES) {
    check(Page(path), "Timings");
    check(Page(path), "Limits");
  }
  check(Page(MAIN_PAGE), "Rates");
}
