#include "tests/connection/documents/source_constants.h"

#include <gtest/gtest.h>

#include <optional>
#include <regex>
#include <sstream>

#include "tests/connection/documents/page.h"

namespace {

// Where a constant of another file may come from.
constexpr const char* SHARED[] = {"connection/conn_host_internal.h",
                                  "connection/conn_client_internal.h",
                                  "connection/netsock.h",
                                  "connection/protocol.h",
                                  "connection/secure.h",
                                  "connection/lists.h"};

std::string without_separators(std::string text) {
  std::erase(text, '\'');
  return text;
}

std::optional<std::string> initializer(const std::string& text, const std::string& name) {
  std::smatch found;
  const std::regex definition("\\b" + name + "\\s*(?:=\\s*([^;]+)|\\{([^}]+)\\})\\s*[;,]");
  if (!std::regex_search(text, found, definition)) return {};
  return found[1].matched ? found[1].str() : found[2].str();
}

std::optional<std::uint64_t> lookup(const std::string& file, const std::string& name);

std::optional<std::uint64_t> term(const std::string& file, const std::string& text) {
  static const std::regex literal("(?:std::uint64_t\\{)?(0x[0-9a-fA-F]+|[0-9]+)\\}?");
  static const std::regex identifier("[A-Za-z_]\\w*");
  std::smatch found;
  const std::string digits = without_separators(text);
  if (std::regex_match(digits, found, literal)) return std::stoull(found[1].str(), nullptr, 0);
  if (std::regex_match(text, identifier)) return lookup(file, text);
  return {};
}

// Terms between operators, from left to right: enough for what the sources have.
std::optional<std::uint64_t> evaluate(const std::string& file, const std::string& text) {
  std::istringstream in(text);
  std::string word;
  in >> word;
  auto value = term(file, word);
  for (std::string operation; value && in >> operation;) {
    in >> word;
    const auto next = term(file, word);
    if (!next) return {};
    if (operation == "*")
      *value *= *next;
    else if (operation == "<<")
      *value <<= *next;
    else
      return {};
  }
  return value;
}

std::optional<std::uint64_t> lookup(const std::string& file, const std::string& name) {
  if (const auto own = initializer(tree_file(file), name)) return evaluate(file, *own);
  for (const char* shared : SHARED)
    if (const auto other = initializer(tree_file(shared), name)) return evaluate(shared, *other);
  return {};
}

std::vector<std::string> parts_of(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t from = 0;
  for (std::size_t at; (at = text.find(',', from)) != text.npos; from = at + 1)
    parts.push_back(text.substr(from, at - from));
  parts.push_back(text.substr(from));
  return parts;
}

}  // namespace

std::vector<std::uint64_t> source_constant(const std::string& file, const std::string& name) {
  const auto found = initializer(tree_file(file), name);
  std::vector<std::uint64_t> values;
  if (found)
    for (const std::string& part : parts_of(*found)) {
      const auto value = evaluate(file, part);
      if (value) values.push_back(*value);
    }
  EXPECT_FALSE(values.empty()) << "no constant " << name << " to be read in " << file;
  return values;
}

std::map<std::string, int> source_enumerators(const std::string& file, const std::string& prefix) {
  std::map<std::string, int> found;
  const std::string text = tree_file(file);
  const std::regex enumerator("\\b" + prefix + "(\\w+) = (\\d+),");
  for (std::sregex_iterator at(text.begin(), text.end(), enumerator), end; at != end; ++at)
    found[(*at)[1]] = std::stoi((*at)[2]);
  EXPECT_FALSE(found.empty()) << "no enumerators " << prefix << " in " << file;
  return found;
}

std::vector<std::uint64_t> quantity(const std::string& text, const std::string& constant) {
  static const std::regex number("(2\\^)?([0-9][0-9,]*)(?:\\s*(µs|ms|s|min)\\b)?");
  // A time's unit in the constant, in microseconds.
  const auto ends_with = [&](const char* suffix) { return constant.ends_with(suffix); };
  const std::uint64_t own = ends_with("_US")                                ? 1
                            : ends_with("_MS")                              ? 1'000
                            : ends_with("_SECONDS") || constant == "SECOND" ? 1'000'000
                                                                            : 0;
  std::vector<std::uint64_t> values;
  for (std::sregex_iterator at(text.begin(), text.end(), number), end; at != end; ++at) {
    std::string digits = (*at)[2];
    while (digits.ends_with(',')) digits.pop_back();
    std::erase(digits, ',');
    std::uint64_t value = std::stoull(digits);
    if ((*at)[1].matched) value = std::uint64_t{1} << value;
    const std::string unit = (*at)[3];
    const std::uint64_t scale = unit == "µs"    ? 1
                                : unit == "ms"  ? 1'000
                                : unit == "s"   ? 1'000'000
                                : unit == "min" ? 60'000'000
                                                : 0;
    EXPECT_EQ(scale != 0, own != 0) << "\"" << text << "\" for " << constant;
    values.push_back(own != 0 ? value * scale / own : value);
  }
  return values;
}
