#include "control/security.h"

#include "control/security_platform.h"

namespace host_service {

bool protected_path(const std::filesystem::path& path, bool private_path) {
  return check_path(path, private_path ? PathTest::Private : PathTest::Protected);
}

// From the root down: once a directory has passed, only the system can put something else in the
// place of the next one, so the answers still hold together when the last is given.
bool protected_ancestors(const std::filesystem::path& path) {
  if (!no_reparse_components(path)) return false;
  std::filesystem::path ancestor = path.root_path();
  for (const std::filesystem::path& name : path.relative_path()) {
    if (!check_path(ancestor, PathTest::Ancestor)) return false;
    ancestor /= name;
  }
  return true;
}

bool create_private_directory(const std::filesystem::path& path) {
  return no_reparse_components(path) && security_platform::make_private_directory(path) &&
         check_path(path, PathTest::Private);
}

}  // namespace host_service
