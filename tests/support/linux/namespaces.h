// What a test does inside other Linux namespaces than its own.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "control/linux/descriptor.h"

struct NamespaceFile {
  int type;          // CLONE_NEWNET...
  std::string path;  // as in /proc/<pid>/ns
};

// Calls this on a thread of its own that lives there, and returns when it is done. What the
// function opens or binds stays there.
inline void call_inside(const std::vector<NamespaceFile>& places,
                        const std::function<void()>& function) {
  std::thread([&] {
    // setns(2): a thread that shares its root directory with others can't change its mounts.
    bool there = unshare(CLONE_FS) == 0;
    for (const NamespaceFile& place : places) {
      const Descriptor file(open(place.path.c_str(), O_RDONLY | O_CLOEXEC));
      there = there && file.get() >= 0 && setns(file.get(), place.type) == 0;
      EXPECT_TRUE(there) << "cannot enter " << place.path;
    }
    if (there) function();
  }).join();
}
