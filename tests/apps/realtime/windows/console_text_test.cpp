// What programs print beyond ASCII, on a console that shows another code page than theirs.
#include <gtest/gtest.h>

#include "tests/support/child_process.h"

namespace {

bool holds(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

std::string on_console(std::vector<std::string> command) {
  command.insert(command.begin(), own_program("on_console"));
  return run_program(command).output;
}

TEST(TextOnAConsole, IsShownAsItIsAndTheCodePageIsGivenBack) {
  const std::string shown =
      on_console({own_program("lunderhaze-rendezvous"), "--key-file", "B\u00fcro \u20ac"});
  EXPECT_TRUE(holds(shown, "cannot read a key from B\u00fcro \u20ac")) << shown;
  EXPECT_TRUE(holds(shown, "\n437\n")) << shown;
}

}  // namespace
