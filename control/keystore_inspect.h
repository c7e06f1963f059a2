// A look at what the store holds, for whoever wants to know whether it is whole: nothing is made,
// moved, failed or logged, and no secret leaves. Any thread.
#pragma once

#include <string>
#include <vector>

namespace keystore {

struct StoredFile {
  enum class State {
    Missing,
    Whole,
    Unreadable,  // or encrypted for another computer or user, or damaged
    Malformed,   // read, but nothing that this program has written
  };
  std::string name;
  State state = State::Missing;
};

// Every file that the store may hold and that is judged when it is read.
std::vector<StoredFile> inspect_store();

}  // namespace keystore
