// A process that saves without a pause is killed a thousand times, at whatever instant: within a
// system call too. What it had saved is there; of what it was saving, the old value or the new one.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <random>
#include <string>

#include "control/keystore.h"
#include "tests/support/linux/scoped_store.h"
#include "tests/support/stored_value.h"

namespace {

constexpr int KILLS = 1'000;
constexpr int LONGEST_US = 3'000;

// What the child tells of each thing that it saves; the memory is shared with it.
struct Progress {
  std::atomic<int> begun{0};
  std::atomic<int> saved{0};
};
using Board = std::array<Progress, 4>;
static_assert(std::atomic<int>::is_always_lock_free);

class StoreFireSoakTest : public testing::TestWithParam<keystore::HostStoreScope> {
 protected:
  void SetUp() override {
    if (!ScopedStore::possible(GetParam())) GTEST_SKIP() << MachineStore::WHY_NOT;
    void* memory =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    board_ = new (memory) Board;
  }
  void TearDown() override {
    if (board_ != nullptr) munmap(board_, sizeof(Board));
  }

  [[noreturn]] void save_for_ever(int value) const {
    for (;; ++value) {
      for (std::size_t i = 0; i < board_->size(); ++i) {
        (*board_)[i].begun = value;
        if (!stored_values()[i].save(value)) _exit(1);
        (*board_)[i].saved = value;
      }
    }
  }

  Board* board_ = nullptr;
};

TEST_P(StoreFireSoakTest, AThousandKillsAtRandomInstantsLoseNothingThatWasSaved) {
  const ScopedStore store(GetParam());
  ASSERT_EQ(store.configure(), "");
  ASSERT_EQ(stored_values().size(), board_->size());
  for (const StoredValue& value : stored_values()) ASSERT_TRUE(value.save(0));
  std::mt19937 random(20'26);
  int interrupted = 0;
  std::size_t left_over = 0;
  int next = 1;
  for (int round = 0; round < KILLS; ++round) {
    for (Progress& progress : *board_) progress.begun = progress.saved.load();
    const pid_t child = fork();
    if (child == 0) save_for_ever(next);
    ASSERT_GT(child, 0);
    usleep(static_cast<useconds_t>(random() % LONGEST_US));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "a save failed";
    ASSERT_EQ(store.configure(), "") << "kill " << round;
    for (std::size_t i = 0; i < board_->size(); ++i) {
      Progress& progress = (*board_)[i];
      const StoredValue& value = stored_values()[i];
      const std::string loaded = value.load();
      const int saved = progress.saved;
      const int begun = progress.begun;
      if (begun != saved) ++interrupted;
      ASSERT_TRUE(loaded == value.text(saved) || loaded == value.text(begun))
          << "kill " << round << ", " << value.name << ": " << loaded;
      if (loaded == value.text(begun)) progress.saved = begun;
      next = std::max(next, begun + 1);
    }
    for (const auto& temporary : store.temporaries()) {
      ++left_over;
      std::filesystem::remove(temporary);
    }
  }
  EXPECT_GT(interrupted, KILLS / 4);
  EXPECT_GT(left_over, 0u);
  RecordProperty("interrupted", interrupted);
  RecordProperty("left_over", static_cast<int>(left_over));
}

INSTANTIATE_TEST_SUITE_P(Scopes, StoreFireSoakTest,
                         testing::Values(keystore::User, keystore::Machine),
                         [](const auto& scope) { return std::string(scope_name(scope.param)); });

}  // namespace
