// In place of login_seat.cpp where this was built without libsystemd.
#include "apps/service/linux/login_seat.h"

std::unique_ptr<LoginSeat> open_login_seat(std::string* error) {
  *error = "built without logind: name the session by --display";
  return nullptr;
}
