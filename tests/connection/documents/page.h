// A page of documentation as its tests read it: the fenced blocks that carry a name, the tables
// under a heading, and the words in code marks.
#pragma once

#include <map>
#include <string>
#include <vector>

class Page {
 public:
  // From the tree's root, "docs/protocol.md". An empty page, and a failed test, when it isn't
  // there.
  explicit Page(const std::string& path);

  // Blocks that open with three graves, "hex", and a name: the text between the fences by name. A
  // name that stands twice fails the test.
  const std::map<std::string, std::string>& examples() const& { return examples_; }
  const std::map<std::string, std::string>& examples() && = delete;
  // The page with these texts in its blocks, written back.
  void rewrite(const std::map<std::string, std::string>& examples);

  using Row = std::vector<std::string>;  // cells, trimmed
  // The rows below the head of each table under a heading of this text, down to the next heading.
  // None fails the test.
  std::vector<Row> table(const std::string& heading) const;

  std::vector<std::string> code_spans() const;  // outside fences, in order
  const std::string& text() const { return text_; }

 private:
  std::string path_;
  std::string text_;
  std::map<std::string, std::string> examples_;
};

// A cell without its code marks.
std::string plain(const std::string& cell);

// The text of a file of the tree, empty when there is none.
std::string tree_file(const std::string& path);
