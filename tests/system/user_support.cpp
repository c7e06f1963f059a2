#include "tests/system/user_support.h"

#include <gtest/gtest.h>
#include <xcb/xfixes.h>
#include <xcb/xtest.h>

#include <algorithm>
#include <cstdio>
#include <thread>

#include "capture/linux/x11.h"

namespace system_test {

using x11::own;

void short_pause() {
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
}

void print_times(const std::string& what, std::vector<double> us) {
  std::sort(us.begin(), us.end());
  std::printf("%s: p50 %.0f us, p95 %.0f us, of %zu\n", what.c_str(), us[us.size() / 2],
              us[us.size() * 95 / 100], us.size());
}

User::User(const std::string& display) : connection_(xcb_connect(display.c_str(), nullptr)) {
  screen_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
  own(xcb_xfixes_query_version_reply(connection_, xcb_xfixes_query_version(connection_, 5, 0),
                                     nullptr));
}

User::~User() {
  xcb_disconnect(connection_);
}

void User::settle() {
  own(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

void User::fake(int type, int detail, int x, int y) {
  xcb_test_fake_input(connection_, static_cast<std::uint8_t>(type),
                      static_cast<std::uint8_t>(detail), XCB_CURRENT_TIME, XCB_NONE,
                      static_cast<std::int16_t>(x), static_cast<std::int16_t>(y), 0);
  settle();
}

void User::move(int x, int y) {
  fake(XCB_MOTION_NOTIFY, 0, x, y);
}

// Equal motions of one millisecond count as one with some toolkits.
void User::move_by(int dx, int dy) {
  fake(XCB_MOTION_NOTIFY, 1, dx, dy);
  short_pause();
}

void User::button(int number, bool down) {
  fake(down ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, number, 0, 0);
}

void User::click(int number) {
  button(number, true);
  button(number, false);
}

xcb_keycode_t User::keycode(std::uint32_t keysym) {
  const xcb_setup_t* setup = xcb_get_setup(connection_);
  const auto count = static_cast<std::uint8_t>(setup->max_keycode - setup->min_keycode + 1);
  const auto reply = own(xcb_get_keyboard_mapping_reply(
      connection_, xcb_get_keyboard_mapping(connection_, setup->min_keycode, count), nullptr));
  if (!reply) return 0;
  const xcb_keysym_t* symbols = xcb_get_keyboard_mapping_keysyms(reply.get());
  for (int code = 0; code < count; ++code)
    if (symbols[code * reply->keysyms_per_keycode] == keysym)
      return static_cast<xcb_keycode_t>(setup->min_keycode + code);
  ADD_FAILURE() << "the keyboard has no key " << std::hex << keysym;
  return 0;
}

void User::key(std::uint32_t keysym, bool down) {
  fake(down ? XCB_KEY_PRESS : XCB_KEY_RELEASE, keycode(keysym), 0, 0);
}

// A key that goes down again within 2 ms of its release counts as held and repeating with some
// toolkits, so no person types that fast.
void User::tap(std::uint32_t keysym) {
  key(keysym, true);
  short_pause();
  key(keysym, false);
  short_pause();
}

void User::type(const std::string& text) {
  for (const char character : text)
    tap(character == '\n' ? KEY_RETURN : static_cast<std::uint32_t>(character));
}

void User::command(char letter) {
  key(KEY_RELEASE, true);
  tap(static_cast<std::uint32_t>(letter));
  key(KEY_RELEASE, false);
}

int User::pointer_x() {
  const auto reply = own(
      xcb_query_pointer_reply(connection_, xcb_query_pointer(connection_, screen_->root), nullptr));
  return reply ? reply->root_x : -1;
}

int User::pointer_y() {
  const auto reply = own(
      xcb_query_pointer_reply(connection_, xcb_query_pointer(connection_, screen_->root), nullptr));
  return reply ? reply->root_y : -1;
}

bool User::key_is_down(std::uint32_t keysym) {
  const auto reply =
      own(xcb_query_keymap_reply(connection_, xcb_query_keymap(connection_), nullptr));
  const int code = keycode(keysym);
  return reply && (reply->keys[code / 8] >> (code % 8) & 1) != 0;
}

bool User::take_keyboard() {
  const auto reply =
      own(xcb_grab_keyboard_reply(connection_,
                                  xcb_grab_keyboard(connection_, 0, screen_->root, XCB_CURRENT_TIME,
                                                    XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC),
                                  nullptr));
  return reply && reply->status == XCB_GRAB_STATUS_SUCCESS;
}

void User::let_go_of_keyboard() {
  xcb_ungrab_keyboard(connection_, XCB_CURRENT_TIME);
  settle();
}

bool User::keyboard_is_free() {
  if (!take_keyboard()) return false;
  let_go_of_keyboard();
  return true;
}

bool User::holds_nothing() {
  const auto keys =
      own(xcb_query_keymap_reply(connection_, xcb_query_keymap(connection_), nullptr));
  const auto pointer = own(
      xcb_query_pointer_reply(connection_, xcb_query_pointer(connection_, screen_->root), nullptr));
  return keys && pointer && pointer->mask == 0 &&
         std::all_of(keys->keys, std::end(keys->keys), [](int eight) { return eight == 0; });
}

void User::end_key_repeat() {
  const std::uint32_t off = XCB_AUTO_REPEAT_MODE_OFF;
  xcb_change_keyboard_control(connection_, XCB_KB_AUTO_REPEAT_MODE, &off);
  settle();
}

SeenCursor User::cursor() {
  SeenCursor seen;
  const auto reply = own(xcb_xfixes_get_cursor_image_reply(
      connection_, xcb_xfixes_get_cursor_image(connection_), nullptr));
  if (!reply) return seen;
  seen.width = reply->width;
  seen.height = reply->height;
  seen.hot_x = reply->xhot;
  seen.hot_y = reply->yhot;
  const std::uint32_t* pixels = xcb_xfixes_get_cursor_image_cursor_image(reply.get());
  seen.pixels.assign(pixels, pixels + xcb_xfixes_get_cursor_image_cursor_image_length(reply.get()));
  return seen;
}

xcb_atom_t User::atom(const std::string& name) {
  const auto reply = own(xcb_intern_atom_reply(
      connection_,
      xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.c_str()),
      nullptr));
  return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
}

std::vector<SeenWindow> User::windows() {
  std::vector<SeenWindow> seen;
  const auto tree =
      own(xcb_query_tree_reply(connection_, xcb_query_tree(connection_, screen_->root), nullptr));
  if (!tree) return seen;
  const xcb_window_t* children = xcb_query_tree_children(tree.get());
  for (int i = 0; i < xcb_query_tree_children_length(tree.get()); ++i) {
    const auto attributes = own(xcb_get_window_attributes_reply(
        connection_, xcb_get_window_attributes(connection_, children[i]), nullptr));
    const auto geometry = own(
        xcb_get_geometry_reply(connection_, xcb_get_geometry(connection_, children[i]), nullptr));
    const auto name =
        own(xcb_get_property_reply(connection_,
                                   xcb_get_property(connection_, 0, children[i], XCB_ATOM_WM_NAME,
                                                    XCB_GET_PROPERTY_TYPE_ANY, 0, 64),
                                   nullptr));
    if (!attributes || !geometry || !name || attributes->map_state != XCB_MAP_STATE_VIEWABLE)
      continue;
    const std::string title(static_cast<const char*>(xcb_get_property_value(name.get())),
                            static_cast<std::size_t>(xcb_get_property_value_length(name.get())));
    if (title.empty()) continue;
    seen.push_back(
        {children[i], title, geometry->x, geometry->y, geometry->width, geometry->height});
  }
  // Ids grow; the tree is ordered by what lies on top.
  std::sort(seen.begin(), seen.end(),
            [](const SeenWindow& a, const SeenWindow& b) { return a.id < b.id; });
  return seen;
}

bool User::find_window(const std::string& title, SeenWindow* window) {
  return comes_true([&] {
    for (const SeenWindow& seen : windows()) {
      if (seen.title != title) continue;
      *window = seen;
      return true;
    }
    return false;
  });
}

RgbPicture User::content(const SeenWindow& window) {
  RgbPicture picture{window.width, window.height, {}};
  const auto reply = own(xcb_get_image_reply(
      connection_,
      xcb_get_image(connection_, XCB_IMAGE_FORMAT_Z_PIXMAP, screen_->root,
                    static_cast<std::int16_t>(window.x), static_cast<std::int16_t>(window.y),
                    static_cast<std::uint16_t>(window.width),
                    static_cast<std::uint16_t>(window.height), ~0U),
      nullptr));
  EXPECT_TRUE(reply) << "the screen can't be read";
  if (!reply) return {};
  const std::uint8_t* bgrx = xcb_get_image_data(reply.get());
  for (int pixel = 0; pixel < window.width * window.height; ++pixel, bgrx += 4)
    picture.pixels.insert(picture.pixels.end(), {bgrx[2], bgrx[1], bgrx[0]});
  return picture;
}

RgbPicture User::screen() {
  return content({0, "", 0, 0, screen_->width_in_pixels, screen_->height_in_pixels});
}

std::uint32_t User::colour(int x, int y) {
  const RgbPicture picture = content({0, "", x, y, 1, 1});
  if (picture.pixels.size() < 3) return 0;
  return static_cast<std::uint32_t>(picture.pixels[0] << 16 | picture.pixels[1] << 8 |
                                    picture.pixels[2]);
}

void User::place(const SeenWindow& window, int x, int y, int width, int height) {
  const std::uint32_t values[] = {static_cast<std::uint32_t>(x), static_cast<std::uint32_t>(y),
                                  static_cast<std::uint32_t>(width),
                                  static_cast<std::uint32_t>(height)};
  xcb_configure_window(connection_, window.id,
                       XCB_CONFIG_WINDOW_X | XCB_CONFIG_WINDOW_Y | XCB_CONFIG_WINDOW_WIDTH |
                           XCB_CONFIG_WINDOW_HEIGHT,
                       values);
  settle();
}

void User::focus(xcb_window_t window) {
  xcb_set_input_focus(connection_, XCB_INPUT_FOCUS_POINTER_ROOT, window, XCB_CURRENT_TIME);
  settle();
}

void User::ask_to_close(const SeenWindow& window) {
  xcb_client_message_event_t message{};
  message.response_type = XCB_CLIENT_MESSAGE;
  message.format = 32;
  message.window = window.id;
  message.type = atom("WM_PROTOCOLS");
  message.data.data32[0] = atom("WM_DELETE_WINDOW");
  message.data.data32[1] = XCB_CURRENT_TIME;
  xcb_send_event(connection_, 0, window.id, XCB_EVENT_MASK_NO_EVENT,
                 reinterpret_cast<const char*>(&message));
  settle();
}

void User::watch_requests() {
  const std::uint32_t events = XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY;
  xcb_change_window_attributes(connection_, screen_->root, XCB_CW_EVENT_MASK, &events);
  settle();
}

// Extended Window Manager Hints: a client message to the root; 1 adds the state, 0 removes it.
bool User::is_asked(const std::string& state, bool on) {
  const xcb_atom_t type = atom("_NET_WM_STATE");
  const xcb_atom_t wanted = atom(state);
  return comes_true([&] {
    while (const auto event = own(xcb_poll_for_event(connection_))) {
      if ((event->response_type & 0x7F) != XCB_CLIENT_MESSAGE) continue;
      const auto& message = reinterpret_cast<const xcb_client_message_event_t&>(*event);
      if (message.type == type && message.data.data32[0] == (on ? 1U : 0U) &&
          message.data.data32[1] == wanted)
        return true;
    }
    return false;
  });
}

Recorder::Recorder(const std::string& display, int x, int y, int width, int height)
    : connection_(xcb_connect(display.c_str(), nullptr)) {
  screen_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data;
  window_ = xcb_generate_id(connection_);
  const std::uint32_t values[] = {0x406080, 1,
                                  XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE |
                                      XCB_EVENT_MASK_POINTER_MOTION | XCB_EVENT_MASK_KEY_PRESS |
                                      XCB_EVENT_MASK_KEY_RELEASE | XCB_EVENT_MASK_EXPOSURE};
  xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, screen_->root,
                    static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                    static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height), 0,
                    XCB_WINDOW_CLASS_INPUT_OUTPUT, screen_->root_visual,
                    XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
  xcb_map_window(connection_, window_);
  own(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
  xcb_set_input_focus(connection_, XCB_INPUT_FOCUS_POINTER_ROOT, window_, XCB_CURRENT_TIME);
  own(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
}

Recorder::~Recorder() {
  xcb_disconnect(connection_);
}

std::string Recorder::described(const X11Input& input) {
  if (input.kind == X11Input::Kind::Key) return input.text();
  return input.text() + " " + std::to_string(input.x) + "," + std::to_string(input.y);
}

void Recorder::read() {
  while (const auto input = next_input(connection_, std::chrono::milliseconds(0)))
    events_.push_back(described(*input));
}

std::optional<Recorder::Event> Recorder::next(std::chrono::milliseconds patience) {
  const auto input = next_input(connection_, patience);
  if (!input) return std::nullopt;
  return Event{described(*input), input->at_us};
}

std::uint64_t Recorder::expect_next(const std::vector<std::string>& expected) {
  std::uint64_t at_us = 0;
  for (const std::string& text : expected) {
    const auto event = next();
    EXPECT_TRUE(event) << "not yet " << text;
    if (!event) break;
    EXPECT_EQ(event->text, text);
    at_us = event->at_us;
  }
  return at_us;
}

std::vector<std::string> Recorder::events_until(const std::string& last,
                                                const std::string& prefix) {
  records(last);
  std::vector<std::string> chosen;
  std::copy_if(events_.begin(), events_.end(), std::back_inserter(chosen),
               [&](const std::string& event) { return event.starts_with(prefix); });
  return chosen;
}

const std::vector<std::string>& Recorder::events() {
  read();
  return events_;
}

bool Recorder::records(const std::string& wanted) {
  return comes_true([&] {
    read();
    return std::find(events_.begin(), events_.end(), wanted) != events_.end();
  });
}

std::size_t Recorder::count(const std::string& prefix) {
  read();
  return static_cast<std::size_t>(
      std::count_if(events_.begin(), events_.end(),
                    [&](const std::string& event) { return event.rfind(prefix, 0) == 0; }));
}

}  // namespace system_test
