#include "tests/support/windows/neighbour.h"

#include <filesystem>

#include "control/windows/wide_text.h"
#include "tests/support/windows/system_token.h"

namespace {

std::filesystem::path beside_this_program(const wchar_t* name) {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::filesystem::path(path).parent_path() / name;
}

}  // namespace

Neighbour::Neighbour(As as) {
  Handle token;
  if (as == As::System && !(token = make_system_token())) return;
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  Handle its_orders, its_answers;
  CreatePipe(its_orders.receive(), orders_.receive(), &inherited, 0);
  CreatePipe(answers_.receive(), its_answers.receive(), &inherited, 0);
  SetHandleInformation(orders_.get(), HANDLE_FLAG_INHERIT, 0);
  SetHandleInformation(answers_.get(), HANDLE_FLAG_INHERIT, 0);
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  startup.dwFlags = STARTF_USESTDHANDLES;
  startup.hStdInput = its_orders.get();
  startup.hStdOutput = its_answers.get();
  startup.hStdError = GetStdHandle(STD_ERROR_HANDLE);
  std::wstring command = L'"' + beside_this_program(L"neighbour.exe").native() + L'"';
  PROCESS_INFORMATION made{};
  const BOOL started =
      token ? CreateProcessAsUserW(token.get(), nullptr, command.data(), nullptr, nullptr, TRUE, 0,
                                   nullptr, nullptr, &startup, &made)
            : CreateProcessW(nullptr, command.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                             &startup, &made);
  if (!started) return;
  const Handle thread(made.hThread);
  process_.reset(made.hProcess);
  id_ = made.dwProcessId;
}

Neighbour::~Neighbour() {
  end();
}

void Neighbour::end() {
  if (!process_) return;
  TerminateProcess(process_.get(), 1);
  WaitForSingleObject(process_.get(), INFINITE);
  orders_.reset();
}

std::string Neighbour::tell(const std::string& order) {
  DWORD moved = 0;
  const std::string line = order + '\n';
  WriteFile(orders_.get(), line.data(), static_cast<DWORD>(line.size()), &moved, nullptr);
  std::string answer;
  char letter = 0;
  while (ReadFile(answers_.get(), &letter, 1, &moved, nullptr) && moved == 1 && letter != '\n')
    if (letter != '\r') answer += letter;
  return answer;
}
