// POSIX access lists, which no library here writes.
#pragma once

#include <sys/xattr.h>

#include <cstdint>
#include <filesystem>
#include <vector>

#include "tests/support/linux/forked.h"

inline constexpr const char* ACCESS_LIST = "system.posix_acl_access";
inline constexpr const char* DEFAULT_ACCESS_LIST = "system.posix_acl_default";

// False where the file system keeps none. The list that ext4 and tmpfs keep
// (linux/posix_acl_xattr.h): version 2, then tag, rights and id of each entry: owner, one user,
// owning group, mask, others.
inline bool set_access_list(const std::filesystem::path& path, const char* list, unsigned owner,
                            unsigned user, unsigned mask) {
  std::vector<unsigned char> bytes = {2, 0, 0, 0};
  const auto add = [&bytes](unsigned tag, unsigned rights, std::uint32_t id) {
    for (const unsigned value : {tag, rights, id & 0xFFFF, id >> 16}) {
      bytes.push_back(static_cast<unsigned char>(value));
      bytes.push_back(static_cast<unsigned char>(value >> 8));
    }
  };
  add(0x01, owner, UINT32_MAX);
  add(0x02, user, ORDINARY_USER);
  add(0x04, 0, UINT32_MAX);
  add(0x10, mask, UINT32_MAX);
  add(0x20, 0, UINT32_MAX);
  return setxattr(path.c_str(), list, bytes.data(), bytes.size(), 0) == 0;
}
