#include "apps/service/windows/secure_attention.h"

namespace {

constexpr wchar_t POLICIES[] = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\Policies\\System";
constexpr wchar_t POLICY[] = L"SoftwareSASGeneration";
constexpr DWORD SERVICES = 1;  // a bit of the policy's value

// For the process's life: it is asked for again.
AttentionCalls::SendSas find_send_sas() {
  static const Library library(LoadLibraryExW(L"sas.dll", nullptr, LOAD_LIBRARY_SEARCH_SYSTEM32));
  if (!library) return nullptr;
  return reinterpret_cast<AttentionCalls::SendSas>(
      reinterpret_cast<void*>(GetProcAddress(library.get(), "SendSAS")));
}

std::optional<DWORD> policy() {
  DWORD value = 0, size = sizeof value;
  const LSTATUS status =
      RegGetValueW(HKEY_LOCAL_MACHINE, POLICIES, POLICY, RRF_RT_REG_DWORD, nullptr, &value, &size);
  return status == ERROR_SUCCESS ? std::optional(value) : std::nullopt;
}

}  // namespace

const AttentionCalls SYSTEM_ATTENTION = {find_send_sas, policy};

// The call has no result: that it is of no use is seen by the policy alone.
std::string send_secure_attention(const AttentionCalls& calls) {
  const AttentionCalls::SendSas send = calls.find();
  if (send == nullptr) return "this Windows does not have it (sas.dll)";
  send(FALSE);  // as a service, to the session at the console
  if ((calls.policy().value_or(0) & SERVICES) != 0) return "sent";
  return "sent, but Windows ignores it while the policy \"Disable or enable software Secure "
         "Attention Sequence\" (Windows Components, Windows Logon Options) does not allow services";
}
