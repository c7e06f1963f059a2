// Stands before host_service::check_path (the linker's --wrap): what lies in a directory that a
// test made for itself counts as private, where it is there and no link, unless its name begins
// with "others-". A drive's root counts as out of everybody else's reach, as Windows' own are.
#include <algorithm>

#include "control/security.h"

// The mangled names, that the linker gives the two.
extern "C" bool real_check_path(const std::filesystem::path& path, host_service::PathTest test) asm(
    "__real__ZN12host_service10check_pathERKNSt10filesystem7__cxx114pathENS_8PathTestE");
extern "C" bool
wrapped_check_path(const std::filesystem::path& path, host_service::PathTest test) asm(
    "__wrap__ZN12host_service10check_pathERKNSt10filesystem7__cxx114pathENS_8PathTestE");

bool wrapped_check_path(const std::filesystem::path& path, host_service::PathTest test) {
  const bool own = std::any_of(path.begin(), path.end(), [](const std::filesystem::path& name) {
    return name.native().starts_with(L"lund-test-");
  });
  if (test == host_service::PathTest::Ancestor && path == path.root_path()) return true;
  if (!own || path.filename().native().starts_with(L"others-")) return real_check_path(path, test);
  return host_service::no_reparse_components(path) && std::filesystem::exists(path);
}
