// An X server for a benchmark: ends with its last client. DISPLAY of this process names it.
#pragma once

#include <xcb/xcb.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

class Server {
 public:
  Server() {
    pipe_ = popen(
        "exec Xvfb -displayfd 1 -terminate -nolisten tcp -screen 0 1280x720x24 2>/dev/null", "r");
    char line[16] = {};
    if (!pipe_ || !std::fgets(line, sizeof line, pipe_)) return;
    setenv("DISPLAY", (":" + std::string(line, std::strcspn(line, "\n"))).c_str(), 1);
    connection_ = xcb_connect(nullptr, nullptr);
    root_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
  }
  ~Server() {
    if (connection_) xcb_disconnect(connection_);
    if (pipe_) pclose(pipe_);
  }
  Server(const Server&) = delete;
  Server& operator=(const Server&) = delete;

  bool ok() const { return connection_ && !xcb_connection_has_error(connection_); }
  xcb_connection_t* connection() const { return connection_; }
  xcb_window_t root() const { return root_; }
  void wait() const {
    std::free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
  }

 private:
  std::FILE* pipe_ = nullptr;
  xcb_connection_t* connection_ = nullptr;
  xcb_window_t root_ = XCB_NONE;
};
