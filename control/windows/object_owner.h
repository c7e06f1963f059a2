// Whose an open file, pipe or other thing is. Needs the right to read its descriptor, which reading
// it includes.
#pragma once

#include "control/windows/handles.h"
// After what handles.h includes.
#include <aclapi.h>

class ObjectOwner {
 public:
  ObjectOwner(HANDLE object, SE_OBJECT_TYPE type) {
    if (GetSecurityInfo(object, type, OWNER_SECURITY_INFORMATION, &owner_, nullptr, nullptr,
                        nullptr, descriptor_.receive()) != ERROR_SUCCESS)
      owner_ = nullptr;
  }

  PSID get() const { return owner_; }  // null where it has none or it can't be told
  bool is_same(const ObjectOwner& other) const {
    return owner_ != nullptr && other.owner_ != nullptr && EqualSid(owner_, other.owner_);
  }

 private:
  PSID owner_ = nullptr;
  LocalMemory<void> descriptor_;
};
