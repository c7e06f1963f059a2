#include "control/windows/command_pipe.h"

#include "control/windows/token.h"

namespace command_pipe {

std::wstring path(const Name& name) {
  return L"\\\\.\\pipe\\LunderhazeHost-v1-" + std::wstring(name.begin(), name.end() - 1);
}

SecurityAttributes attributes() {
  const std::wstring user = current_user();
  if (user.empty()) return {};
  return SecurityAttributes(L"O:" + user + L"D:P(A;;FA;;;" + user + L")(A;;FA;;;SY)");
}

}  // namespace command_pipe
