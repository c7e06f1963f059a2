// What a file's owner, mode and access control list say about who else can read or change it. Pure.
#pragma once

#include <sys/stat.h>

#include "control/security.h"

namespace host_service {

struct PathFacts {
  uid_t owner;
  mode_t mode;
  bool has_acl;  // an access list beyond the mode, or one for what will be made in it
};

// A symbolic link passes no test. Where there is an access list, the mode's group bits are its mask
// (POSIX 1003.1e): without a write bit there no entry of the list grants writing. What a list
// grants on things yet to be made in a directory is judged on those.
inline bool trusted(const PathFacts& facts, PathTest test) {
  if (facts.owner != 0 || S_ISLNK(facts.mode)) return false;
  const bool others_write = (facts.mode & (S_IWGRP | S_IWOTH)) != 0;
  switch (test) {
    case PathTest::Private:
      return (facts.mode & (S_IRWXG | S_IRWXO)) == 0 && !facts.has_acl;
    case PathTest::Protected:
      return !others_write;
    case PathTest::Ancestor:
      // In a sticky directory all may make things, but only its owner and a thing's own rename it.
      return !others_write || (S_ISDIR(facts.mode) && (facts.mode & S_ISVTX) != 0);
  }
  return false;
}

}  // namespace host_service
