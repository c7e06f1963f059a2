#include "tests/support/windows/heard_program.h"

#include <thread>

namespace {

constexpr char OUTPUT_FILE[] = "output";
constexpr char INPUT_FILE[] = "input";
constexpr std::chrono::milliseconds LOOK_EVERY{5};

}  // namespace

// The program has handles of its own by the time that those here are closed.
HeardProgram::HeardProgram(const std::wstring& command, As as, const std::string& input)
    : program_([&] {
        write_file(directory_ / INPUT_FILE, input);
        const Handle in = open(INPUT_FILE, GENERIC_READ, OPEN_EXISTING);
        const Handle out = open(OUTPUT_FILE, FILE_APPEND_DATA, CREATE_NEW);
        return StartedProgram(command, as, {in.get(), out.get(), out.get()});
      }()) {}

// Inherited.
Handle HeardProgram::open(const std::string& name, DWORD access, DWORD disposition) const {
  SECURITY_ATTRIBUTES inherited{sizeof inherited, nullptr, TRUE};
  return owned_file(CreateFileW((directory_ / name).c_str(), access,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherited,
                                disposition, 0, nullptr));
}

std::string HeardProgram::output() const {
  std::string text = file_content(directory_ / OUTPUT_FILE);
  std::erase(text, '\r');
  return text;
}

bool HeardProgram::says(const std::string& text, std::chrono::milliseconds deadline) const {
  const auto until = std::chrono::steady_clock::now() + deadline;
  while (output().find(text) == std::string::npos) {
    if (std::chrono::steady_clock::now() > until || program_.wait(LOOK_EVERY))
      return output().find(text) != std::string::npos;
  }
  return true;
}

ProgramEnd run_program(const std::wstring& command, As as, const std::string& input) {
  const HeardProgram program(command, as, input);
  const int status = program.wait();
  return {status, program.output()};
}
