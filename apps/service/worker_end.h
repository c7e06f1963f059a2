// How a worker ended: the words for a person, and whether another may be started. Pure.
#pragma once

#include <string>

struct WorkerEnd {
  enum class Kind {
    Exited,
    Signalled,  // by a signal, on a system that has them
    Faulted,    // by an exception, and
    Killed,     // by this service, on one that says so in the exit code
  };
  Kind kind = Kind::Exited;
  int number = 0;  // the exit code, the signal's, or the exception's as a signed one
};

std::string words_for(const WorkerEnd& end);  // without "; "

// Of an end that nobody asked for, of a worker that had given no sign of life. What a worker says
// of its own arguments, identity or lock's place would be the same the next time; everything else
// may pass.
bool may_start_again(const WorkerEnd& end);
