// Whom a thing that is being made belongs to and who may use it, by a text in the security
// descriptor definition language (SDDL). False where the system doesn't accept the text.
#pragma once

#include "control/windows/handles.h"
// After what handles.h includes.
#include <sddl.h>

#include <string>

inline constexpr wchar_t SYSTEM_ALONE[] = L"O:SYG:SYD:P(A;;GA;;;SY)";

class SecurityAttributes {
 public:
  SecurityAttributes() = default;  // false: what is made with it has the system's default
  explicit SecurityAttributes(const std::wstring& sddl) {
    if (!ConvertStringSecurityDescriptorToSecurityDescriptorW(sddl.c_str(), SDDL_REVISION_1,
                                                              descriptor_.receive(), nullptr))
      descriptor_.reset();
    attributes_.lpSecurityDescriptor = descriptor_.get();
  }

  explicit operator bool() const { return static_cast<bool>(descriptor_); }
  SECURITY_ATTRIBUTES* get() { return &attributes_; }
  PSECURITY_DESCRIPTOR descriptor() const { return descriptor_.get(); }

 private:
  LocalMemory<void> descriptor_;
  SECURITY_ATTRIBUTES attributes_{sizeof attributes_, nullptr, FALSE};
};
