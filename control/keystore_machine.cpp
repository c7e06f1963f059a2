// The machine store: a directory that only the system may reach, whose every anomaly is fatal.
#include "control/keystore_internal.h"

namespace keystore::internal {

// Refused for as long as this platform can't prove that the directory and its files are private:
// secrets must not lie where that is only hoped for.
bool configure_machine(std::string* error) {
  if (error != nullptr) *error = "machine store not supported on this system";
  return false;
}

}  // namespace keystore::internal
