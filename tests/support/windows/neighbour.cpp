#include "tests/support/windows/neighbour.h"

namespace {

void make_inherited(HANDLE handle) {
  SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
}

}  // namespace

Neighbour::Ends Neighbour::make_input() {
  Ends ends;
  CreatePipe(ends.its.receive(), ends.own.receive(), nullptr, 0);
  make_inherited(ends.its.get());
  return ends;
}

Neighbour::Ends Neighbour::make_output() {
  Ends ends;
  CreatePipe(ends.own.receive(), ends.its.receive(), nullptr, 0);
  make_inherited(ends.its.get());
  return ends;
}

// Once it is started its own ends are its alone: so that its death is seen.
Neighbour::Neighbour(As as)
    : program_(L"neighbour.exe", as, {orders_.its.get(), answers_.its.get()}) {
  orders_.its.reset();
  answers_.its.reset();
}

void Neighbour::end() {
  program_.end();
}

std::string Neighbour::tell(const std::string& order) {
  DWORD moved = 0;
  const std::string line = order + '\n';
  WriteFile(orders_.own.get(), line.data(), static_cast<DWORD>(line.size()), &moved, nullptr);
  std::string answer;
  char letter = 0;
  while (ReadFile(answers_.own.get(), &letter, 1, &moved, nullptr) && moved == 1 && letter != '\n')
    if (letter != '\r') answer += letter;
  return answer;
}
