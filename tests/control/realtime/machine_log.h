// The machine's log, where its store is private.
#pragma once

#include <gtest/gtest.h>

#include "control/keystore.h"
#include "control/log.h"
#include "tests/support/machine_store.h"

class MachineLog : public testing::Test {
 protected:
  void SetUp() override {
    if (!MachineStore::possible()) GTEST_SKIP() << MachineStore::WHY_NOT;
    ASSERT_EQ(store_.configure(), "");
  }
  void TearDown() override { log_close(); }

  std::filesystem::path file() const { return store_ / "host.log"; }
  void open() const { log_open(false, store_.path()); }
  // Whether a line reaches the file.
  bool keeps_a_record() const {
    hlog("on record");
    return file_content(file()).ends_with("] on record\r\n");
  }

  MachineStore store_;
};
