// A client that does what its standard input says and says what it is told: the whole client but
// for a person. It presses without letting go, which no command of the product's own client does,
// so that a test can kill it in the middle of that, and it knows when each event set out.
//
//     system_client_hand STORE HOST SCREENS [WIDTH]
//
// Commands, a line each; the first four begin with the screen's number:
//     S key USAGE down|up    S button N down|up    S wheel ACROSS DOWN    S to X Y    leave
// X and Y: 0 to 65535 across the picture. Each is answered "did US", the monotonic clock's
// microseconds before it was given to the client, or "refused".
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>

#include "apps/client/host_access.h"
#include "connection/clock.h"

namespace {

class Teller : public SessionSinks {
 public:
  void state(SessionState state, const std::string& text) override {
    if (state == SessionState::BrokenOff) std::printf("broken off: %s\n", text.c_str());
  }
  void granted(int screen, const lund_hello_ack& ack) override {
    std::printf("screen %d streams %dx%d\n", screen, ack.width, ack.height);
  }
  void pointer(int screen, const PointerPosition& at) override {
    std::printf("screen %d pointer %d,%d %s image %08x\n", screen, at.x, at.y,
                at.visible ? "shown" : "hidden", at.shape_id);
  }
  void pointer_image(int screen, const PointerImage& image) override {
    const CursorBitmap& bitmap = image.bitmap;
    std::printf("screen %d has image %08x %dx%d hot %d,%d\n", screen, image.id, bitmap.width,
                bitmap.height, bitmap.hot_x, bitmap.hot_y);
  }
};

bool is_down(std::istream& words) {
  std::string word;
  words >> word;
  return word == "down";
}

bool act(InputSender& input, std::istream& words) {
  std::string what;
  int first = 0;
  words >> what >> first;
  if (what == "key") return input.key(static_cast<std::uint16_t>(first), is_down(words));
  if (what == "button") return input.button(first, is_down(words));
  int second = 0;
  words >> second;
  if (what == "wheel") return input.wheel(first, second);
  if (what == "to")
    return input.position(static_cast<std::uint16_t>(first), static_cast<std::uint16_t>(second));
  return false;
}

void obey(HostSession& session) {
  for (std::string line; std::getline(std::cin, line) && !line.starts_with("leave");) {
    std::istringstream words(line);
    int screen = 0;
    words >> screen;
    const std::uint64_t now_us = lund_now_us();
    if (act(session.input(screen), words))
      std::printf("did %llu\n", static_cast<unsigned long long>(now_us));
    else
      std::printf("refused\n");
  }
  session.stop();
}

// On a terminal what is typed would stand between what is said.
void end_echo() {
  termios terminal{};
  if (tcgetattr(STDIN_FILENO, &terminal) != 0) return;
  terminal.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  tcsetattr(STDIN_FILENO, TCSANOW, &terminal);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) return client_app::EXIT_USAGE;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  end_echo();
  client_app::Arguments args;
  args.store = argv[1];
  args.host = argv[2];
  args.codec = "h264";
  if (argc > 4) args.width = static_cast<unsigned>(std::atoi(argv[4]));
  client_app::HostAccess access;
  std::string text;
  if (const auto status = access.open(args, &text)) return client_app::fail(status, text);
  SessionRequest request;
  for (args.screen = 0; args.screen < static_cast<unsigned>(std::atoi(argv[3])); ++args.screen)
    request.screens.push_back(client_app::make_hello(args));
  Teller teller;
  HostSession session(access.link(), request, teller);
  std::thread commands([&session] { obey(session); });
  const SessionEnd end = session.run(&text);
  if (end == SessionEnd::Done) {
    commands.join();
    return client_app::EXIT_OK;
  }
  std::printf("ended: %s\n", text.c_str());
  std::fflush(stdout);
  std::_Exit(client_app::exit_status(end));  // nobody ends the reading of a line
}
