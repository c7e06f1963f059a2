#include "apps/service/linux/login_seat.h"

#include <poll.h>
#include <pwd.h>
#include <systemd/sd-login.h>

#include <array>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char SEAT[] = "seat0";

// A text of sd-login's, by the function that gives it; empty when it knows none.
template <class Get>
std::string text_of(const std::string& session, Get get) {
  char* text = nullptr;
  if (get(session.c_str(), &text) < 0 || text == nullptr) return {};
  std::string copy = text;
  std::free(text);
  return copy;
}

std::string user_name(uid_t uid) {
  std::array<char, 4'096> buffer;
  passwd entry{};
  passwd* found = nullptr;
  getpwuid_r(uid, &entry, buffer.data(), buffer.size(), &found);
  return found != nullptr ? found->pw_name : "user " + std::to_string(uid);
}

class Seat final : public LoginSeat {
 public:
  explicit Seat(sd_login_monitor* monitor) : monitor_(monitor) {}
  ~Seat() override { sd_login_monitor_unref(monitor_); }

  std::optional<LoginSession> active() override {
    char* id = nullptr;
    uid_t uid = 0;
    if (sd_seat_get_active(SEAT, &id, &uid) < 0 || id == nullptr) return std::nullopt;
    LoginSession session;
    session.id = id;
    std::free(id);
    session.type = text_of(session.id, sd_session_get_type);
    session.display = text_of(session.id, sd_session_get_display);
    session.uid = uid;
    session.user = user_name(uid);
    return session;
  }

  void wait_for_change(const WakeEvent& stop, std::uint32_t timeout_ms) override {
    const int events = sd_login_monitor_get_events(monitor_);
    pollfd polled[] = {{sd_login_monitor_get_fd(monitor_), static_cast<short>(events), 0},
                       {static_cast<int>(stop.native_handle()), POLLIN, 0}};
    if (poll(polled, 2, static_cast<int>(timeout_ms)) > 0 && polled[0].revents != 0)
      sd_login_monitor_flush(monitor_);
  }

 private:
  sd_login_monitor* const monitor_;
};

}  // namespace

std::unique_ptr<LoginSeat> open_login_seat(std::string* error) {
  sd_login_monitor* monitor = nullptr;
  const int result = sd_login_monitor_new(nullptr, &monitor);
  if (result >= 0) return std::make_unique<Seat>(monitor);
  *error = std::string("logind doesn't run here (") + std::strerror(-result) +
           "): name the session by --display";
  return nullptr;
}
