// What a process's token says about it. Any thread.
#pragma once

#include <string>

#include "control/windows/handles.h"

// Empty where it can't be had.
Handle process_token(HANDLE process, DWORD access);

bool is_elevated(HANDLE token);  // as an administrator; false where it can't be told

// The user of a token; `get` is null where it can't be had.
class UserSid {
 public:
  explicit UserSid(HANDLE token);
  UserSid(const UserSid&) = delete;
  UserSid& operator=(const UserSid&) = delete;
  PSID get() const { return user_; }

 private:
  alignas(TOKEN_USER) unsigned char bytes_[sizeof(TOKEN_USER) + SECURITY_MAX_SID_SIZE];
  PSID user_ = nullptr;
};

// This process's user as SDDL has it: "S-1-5-..."; empty where it can't be had.
std::wstring current_user();

namespace host_service {

// Switches a privilege of this process on. False where its token doesn't hold it.
bool enable_privilege(const wchar_t* name);

}  // namespace host_service
