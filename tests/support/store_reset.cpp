#include "control/keystore_internal.h"

namespace keystore::internal {

void reset_for_test(HostStoreScope scope, const std::filesystem::path& directory) {
  Store& state = store();
  state.configured = false;
  state.scope = scope;
  state.directory = directory;
  state.failure.clear();
  state.healthy = true;
}

}  // namespace keystore::internal
