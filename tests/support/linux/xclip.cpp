#include "tests/support/linux/xclip.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <chrono>
#include <cstdlib>
#include <map>
#include <set>
#include <string_view>

namespace {

using std::chrono::steady_clock;
// Far more than a loaded computer takes for a copy of the largest size.
constexpr std::chrono::seconds DEADLINE{10};

}  // namespace

struct Xclip::Watch {
  explicit Watch(const std::string& display) : connection(xcb_connect(display.c_str(), nullptr)) {
    constexpr std::string_view CLIPBOARD = "CLIPBOARD";
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    auto* atom = xcb_intern_atom_reply(
        connection, xcb_intern_atom(connection, 0, CLIPBOARD.size(), CLIPBOARD.data()), nullptr);
    std::free(xcb_xfixes_query_version_reply(connection, xcb_xfixes_query_version(connection, 5, 0),
                                             nullptr));
    const std::uint32_t windows = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
    xcb_change_window_attributes(connection, screen->root, XCB_CW_EVENT_MASK, &windows);
    xcb_xfixes_select_selection_input(connection, screen->root, atom->atom,
                                      XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER);
    event_type =
        static_cast<std::uint8_t>(xcb_get_extension_data(connection, &xcb_xfixes_id)->first_event +
                                  XCB_XFIXES_SELECTION_NOTIFY);
    std::free(atom);
    sync();
  }
  ~Watch() { xcb_disconnect(connection); }

  void sync() const {
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
  }
  // Each new owner once.
  bool has_new_owner() {
    return wait_for([this] { return owners > 0; }) && owners-- > 0;
  }
  bool is_put_away() {
    return wait_for([this] { return windows_since.empty(); });
  }
  void handle(const xcb_generic_event_t& event) {
    const int type = event.response_type & 0x7F;
    if (type == XCB_CREATE_NOTIFY) {
      windows_since.insert(reinterpret_cast<const xcb_create_notify_event_t&>(event).window);
    } else if (type == XCB_DESTROY_NOTIFY) {
      windows_since.erase(reinterpret_cast<const xcb_destroy_notify_event_t&>(event).window);
    } else if (type == event_type) {
      windows_since.clear();
      ++owners;
    }
  }
  template <typename Condition>
  bool wait_for(Condition condition) {
    const auto until = steady_clock::now() + DEADLINE;
    for (;;) {
      if (auto* event = xcb_poll_for_event(connection)) {
        handle(*event);
        std::free(event);
        continue;
      }
      if (condition()) return true;
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(until - steady_clock::now());
      pollfd ready{xcb_get_file_descriptor(connection), POLLIN, 0};
      if (left.count() <= 0 || xcb_connection_has_error(connection) != 0 ||
          poll(&ready, 1, static_cast<int>(left.count())) <= 0)
        return false;
    }
  }

  xcb_connection_t* connection;
  std::uint8_t event_type = 0;
  int owners = 0;                        // that weren't waited for yet
  std::set<xcb_window_t> windows_since;  // top-level ones made since the last, and still there
};

std::string xclip_paste(const std::string& display, const std::string& target) {
  const RunResult result = run_program({"xclip", "-selection", "clipboard", "-o", "-t", target},
                                       {{"DISPLAY", display}}, std::chrono::seconds(30));
  return result.status == 0 ? result.output : "xclip failed: " + result.output;
}

Xclip::Xclip(const std::string& display)
    : display_(display), watch_(std::make_unique<Watch>(display)) {}

Xclip::~Xclip() = default;

void Xclip::copy(const std::string& content, const std::string& target) {
  const std::string name = (directory_ / "copied").string();
  write_file(name, content);
  auto next = std::make_unique<ChildProcess>(
      std::vector<std::string>{"xclip", "-verbose", "-selection", "clipboard", "-t", target, "-i",
                               name},
      std::map<std::string, std::string>{{"DISPLAY", display_}});
  EXPECT_TRUE(watch_->has_new_owner()) << next->output();
  // The server answers this after it has written its events to everybody.
  watch_->sync();
  serving_ = std::move(next);  // the one before has left by itself
}

bool Xclip::given(int times) {
  // It counts requests for contents, not those for the list of targets.
  if (!serving_->wait_for_output("selection request number " + std::to_string(times + 1), DEADLINE))
    return false;
  watch_->sync();  // and so it knows of the window, which is older
  return watch_->is_put_away();
}

std::string Xclip::paste(const std::string& target) const {
  return xclip_paste(display_, target);
}

bool Xclip::changed() {
  return watch_->has_new_owner();
}
