#include "tests/support/machine_store.h"

#include <gtest/gtest.h>

#include "control/keystore.h"
#include "control/keystore_internal.h"

MachineStore::MachineStore(const std::filesystem::path& place) : parent_(place) {
  make_private(parent());
  restart();
}

MachineStore::~MachineStore() {
  keystore::internal::reset_for_test(keystore::User, {});
}

void MachineStore::restart() const {
  keystore::internal::reset_for_test(keystore::Machine, path());
}

std::string MachineStore::configure() const {
  restart();
  std::string error;
  if (keystore::configureHostStore(keystore::Machine, &error)) return "";
  EXPECT_EQ(error, store_failure());
  return error.empty() ? "failed without a word" : error;
}

std::string store_failure() {
  std::string error;
  keystore::hostStoreHealthy(&error);
  return error;
}
