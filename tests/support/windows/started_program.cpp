#include "tests/support/windows/started_program.h"

#include <filesystem>

#include "tests/support/windows/system_token.h"

namespace {

std::filesystem::path own_directory() {
  wchar_t path[MAX_PATH];
  GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::filesystem::path(path).parent_path();
}

Handle token_for(As as) {
  switch (as) {
    case As::Self:
      break;
    case As::Administrator:
      return make_administrator_token();
    case As::System:
      return make_system_token();
  }
  return {};
}

}  // namespace

StartedProgram::StartedProgram(const std::wstring& command, As as, const StandardStreams& streams) {
  const Handle token = token_for(as);
  if (as != As::Self && !token) return;
  STARTUPINFOW startup{};
  startup.cb = sizeof startup;
  if (streams.output != nullptr) {
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = streams.input;
    startup.hStdOutput = streams.output;
    startup.hStdError = streams.error != nullptr ? streams.error : GetStdHandle(STD_ERROR_HANDLE);
  }
  const std::size_t end_of_name = command.find(L' ');
  const std::filesystem::path program = own_directory() / command.substr(0, end_of_name);
  std::wstring line = L'"' + program.native() + L'"';
  if (end_of_name != command.npos) line += command.substr(end_of_name);
  PROCESS_INFORMATION made{};
  const BOOL started =
      token ? CreateProcessAsUserW(token.get(), nullptr, line.data(), nullptr, nullptr, TRUE, 0,
                                   nullptr, nullptr, &startup, &made)
            : CreateProcessW(nullptr, line.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr,
                             &startup, &made);
  if (!started) return;
  const Handle thread(made.hThread);
  process_.reset(made.hProcess);
  id_ = made.dwProcessId;
}

StartedProgram::~StartedProgram() {
  end();
}

void StartedProgram::end() {
  if (!process_) return;
  TerminateProcess(process_.get(), 1);
  WaitForSingleObject(process_.get(), INFINITE);
}

std::optional<std::uint32_t> StartedProgram::wait(std::chrono::milliseconds deadline) const {
  DWORD status = 0;
  if (!process_ ||
      WaitForSingleObject(process_.get(), static_cast<DWORD>(deadline.count())) != WAIT_OBJECT_0 ||
      !GetExitCodeProcess(process_.get(), &status))
    return std::nullopt;
  return status;
}
