#include "control/linux/lock_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

LockFile::~LockFile() {
  if (file_.get() >= 0) unlink(path_.c_str());
}

// A holder that ends removes the file between another's opening and locking it: what that one has
// locked then has no name any more and counts for nothing.
LockFile::Result LockFile::acquire(const std::filesystem::path& path) {
  for (;;) {
    Descriptor file(
        open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, S_IRUSR | S_IWUSR));
    if (file.get() < 0) return Result::Failed;
    if (flock(file.get(), LOCK_EX | LOCK_NB) != 0)
      return errno == EWOULDBLOCK ? Result::Busy : Result::Failed;
    struct stat locked {
    }, named{};
    if (fstat(file.get(), &locked) != 0) return Result::Failed;
    if (lstat(path.c_str(), &named) != 0 && errno != ENOENT) return Result::Failed;
    if (locked.st_dev != named.st_dev || locked.st_ino != named.st_ino) continue;
    path_ = path;
    file_ = std::move(file);
    return Result::Held;
  }
}
