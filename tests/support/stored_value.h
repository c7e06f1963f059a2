// The things that a host saves, each with as many different values as one likes.
#pragma once

#include <functional>
#include <string>
#include <vector>

struct StoredValue {
  std::string name;  // of its file
  std::function<bool(int)> save;
  std::function<std::string(int)> text;  // what a value looks like when it is loaded
  std::function<std::string()> load;
  // What is said when it can't be saved: by the machine's store, and in a user's log (may be
  // nothing).
  std::string machine_words;
  std::string user_words;
};

const std::vector<StoredValue>& stored_values();
const StoredValue& stored_value(const std::string& name);
