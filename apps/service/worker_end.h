// How a worker ended: the words for a person, and whether another may be started. Pure.
#pragma once

#include <string>

struct WorkerEnd {
  enum class Kind { Exited, Signalled };
  Kind kind = Kind::Exited;
  int number = 0;  // the exit code, or the signal's
};

std::string words_for(const WorkerEnd& end);  // without "; "

// Of an end that nobody asked for. What a worker says of its own arguments, identity or lock's
// place would be the same the next time; everything else may pass.
bool may_start_again(const WorkerEnd& end);
