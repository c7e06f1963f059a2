// aborting abort|assert|throw|thread: ends by abort(), called or come to in one of these ways; with
// another word with the exit code 3.
#undef NDEBUG
#include <cassert>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

int main(int argc, char** argv) {
  const auto is = [&](const char* word) { return argc == 2 && std::strcmp(argv[1], word) == 0; };
  if (is("abort")) std::abort();
  assert(!is("assert"));
  if (is("throw")) throw std::runtime_error("nobody takes it");
  if (is("thread")) std::thread([] { throw std::runtime_error("nobody takes it"); }).join();
  return 3;
}
