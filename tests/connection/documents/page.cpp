#include "tests/connection/documents/page.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

namespace {

constexpr char FENCE[] = "```";
constexpr char EXAMPLE_FENCE[] = "```hex ";

std::string trimmed(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == text.npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

std::vector<std::string> lines_of(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

Page::Row cells_of(const std::string& line) {
  Page::Row cells;
  std::istringstream in(line.substr(1));
  for (std::string cell; std::getline(in, cell, '|');) cells.push_back(trimmed(cell));
  return cells;
}

bool is_rule(const std::string& line) {
  return line.find_first_not_of("|-: ") == line.npos;
}

// "## Heading" without its marks; empty for any other line.
std::string heading_of(const std::string& line) {
  const auto marks = line.find_first_not_of('#');
  return marks == 0 || marks == line.npos || line[marks] != ' ' ? std::string()
                                                                : trimmed(line.substr(marks));
}

std::string path_in_tree(const std::string& path) {
  return std::string(LUND_SOURCE_DIR) + "/" + path;
}

}  // namespace

std::string tree_file(const std::string& path) {
  std::ifstream in(path_in_tree(path), std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

std::string plain(const std::string& cell) {
  std::string out = cell;
  std::erase(out, '`');
  return out;
}

Page::Page(const std::string& path) : path_(path), text_(tree_file(path)) {
  EXPECT_FALSE(text_.empty()) << path << " is missing";
  std::string* open = nullptr;
  for (const std::string& line : lines_of(text_)) {
    if (line.starts_with(EXAMPLE_FENCE)) {
      const std::string name = line.substr(sizeof EXAMPLE_FENCE - 1);
      const auto [entry, is_new] = examples_.emplace(name, "");
      EXPECT_TRUE(is_new) << path << " has two examples named " << name;
      open = &entry->second;
    } else if (line.starts_with(FENCE)) {
      open = nullptr;
    } else if (open) {
      *open += line + "\n";
    }
  }
}

void Page::rewrite(const std::map<std::string, std::string>& examples) {
  std::string out;
  bool skipping = false;
  for (const std::string& line : lines_of(text_)) {
    if (line.starts_with(FENCE)) skipping = false;
    if (!skipping) out += line + "\n";
    if (!line.starts_with(EXAMPLE_FENCE)) continue;
    const auto known = examples.find(line.substr(sizeof EXAMPLE_FENCE - 1));
    if (known == examples.end()) continue;
    out += known->second;
    skipping = true;
  }
  std::ofstream(path_in_tree(path_), std::ios::binary) << out;
}

std::vector<Page::Row> Page::table(const std::string& heading) const {
  std::vector<Row> rows;
  bool under = false;
  for (const std::string& line : lines_of(text_)) {
    if (const std::string found = heading_of(line); !found.empty()) under = found == heading;
    if (under && line.starts_with("|") && !is_rule(line)) rows.push_back(cells_of(line));
    if (under && line.starts_with("|") && is_rule(line)) rows.pop_back();
  }
  EXPECT_FALSE(rows.empty()) << path_ << " has no table under \"" << heading << "\"";
  return rows;
}

std::vector<std::string> Page::code_spans() const {
  std::vector<std::string> spans;
  bool fenced = false;
  for (const std::string& line : lines_of(text_)) {
    if (line.starts_with(FENCE)) fenced = !fenced;
    if (fenced || line.starts_with(FENCE)) continue;
    for (std::size_t at = 0; (at = line.find('`', at)) != line.npos;) {
      const std::size_t end = line.find('`', at + 1);
      if (end == line.npos) break;
      spans.push_back(line.substr(at + 1, end - at - 1));
      at = end + 1;
    }
  }
  return spans;
}
