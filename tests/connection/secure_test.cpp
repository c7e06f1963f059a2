#include "connection/secure.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>

#include "connection/byte_order.h"
#include "tests/support/session_pair.h"
#include "tests/support/wiped.h"

namespace {

using bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t COUNTER_LIMIT = std::uint64_t{1} << 60;

bytes sealed_with_counter(session_pair& pair, std::uint64_t counter) {
  pair.sender.send_counter = counter;
  return seal(pair.sender, plain_packet(20));
}

int open_counter(session_pair& pair, std::uint64_t counter) {
  return open(pair.receiver, sealed_with_counter(pair, counter)).result;
}

struct replay_state {
  std::uint64_t next;
  std::vector<std::uint64_t> window;
  bool operator==(const replay_state&) const = default;
};

replay_state replay_state_of(const lund_session& session) {
  return {session.recv_next, {std::begin(session.recv_window), std::end(session.recv_window)}};
}

// --- sealing ------------------------------------------------------------------------------------

TEST(Seal, AHeaderAloneBecomes32BytesAndOpensTo8) {
  session_pair pair;
  const bytes sealed = seal(pair.sender, plain_packet(8));
  EXPECT_EQ(sealed.size(), 32u);
  const auto opened = open(pair.receiver, sealed);
  EXPECT_EQ(opened.result, LUND_OK);
  EXPECT_EQ(opened.plain.size(), 8u);
}

TEST(Seal, TheRecordCarriesTypeFlagsSessionAndCounterInClear) {
  session_pair pair;
  const bytes sealed = sealed_with_counter(pair, 0x0102030405060708);
  const bytes front = {0x50, 2, 16, 0x5A, 0x44, 0x33, 0x22, 0x11, 8, 7, 6, 5, 4, 3, 2, 1};
  EXPECT_EQ(bytes(sealed.begin(), sealed.begin() + 16), front);
  EXPECT_EQ(sealed.size(), 20u + 24u);
}

TEST(Seal, TheBodyIsTheAeadOfTheBodyUnderTheCounterWithTheHeaderAsAdditionalData) {
  session_pair pair;
  const bytes plain = plain_packet(20);
  const bytes sealed = sealed_with_counter(pair, 77);
  bytes expected(12 + 16);
  lund_aead_encrypt(pair.sender.send_key, 77, sealed.data(), 8, plain.data() + 8, 12,
                    expected.data(), expected.data() + 12);
  EXPECT_EQ(bytes(sealed.begin() + 16, sealed.end()), expected);
}

TEST(Seal, EachRecordTakesTheNextCounter) {
  session_pair pair;
  for (std::uint64_t i = 0; i < 100; ++i)
    EXPECT_EQ(load_le<std::uint64_t>(seal(pair.sender, plain_packet(9)).data() + 8), i);
}

TEST(Seal, ACounterOf2ToThe60IsRefusedAndStaysAdvanced) {
  session_pair pair;
  EXPECT_FALSE(sealed_with_counter(pair, COUNTER_LIMIT - 1).empty());
  EXPECT_TRUE(seal(pair.sender, plain_packet(20)).empty());
  EXPECT_EQ(pair.sender.send_counter, COUNTER_LIMIT + 1);
  EXPECT_TRUE(sealed_with_counter(pair, COUNTER_LIMIT).empty());
}

TEST(Seal, ARefusedPacketSpendsNoCounter) {
  session_pair pair;
  bytes out(64);
  const auto sealed_size = [&](const bytes& plain, std::size_t capacity) {
    return lund_seal(&pair.sender, plain.data(), plain.size(), out.data(), capacity);
  };
  bytes other_magic = plain_packet(20);
  other_magic[0] = 0x51;
  bytes sealed_already = plain_packet(20);
  sealed_already[1] = LUND_VERSION_SEALED;
  EXPECT_EQ(sealed_size(bytes(7, 0x50), 64), 0u);
  EXPECT_EQ(sealed_size(other_magic, 64), 0u);
  EXPECT_EQ(sealed_size(sealed_already, 64), 0u);
  EXPECT_EQ(sealed_size(plain_packet(20), 43), 0u);
  EXPECT_EQ(pair.sender.send_counter, 0u);
  EXPECT_EQ(sealed_size(plain_packet(20), 44), 44u);
}

// --- opening ------------------------------------------------------------------------------------

TEST(Open, ThePlainPacketComesBackWithTheRecordsSessionId) {
  session_pair pair;
  bytes expected = plain_packet(1376);
  const auto opened = open(pair.receiver, seal(pair.sender, expected));
  store_le(expected.data() + 4, pair.sender.session_id);
  EXPECT_EQ(opened.result, LUND_OK);
  EXPECT_EQ(opened.plain, expected);
}

TEST(Open, InPlaceGivesTheSameAsIntoAnotherBuffer) {
  for (const std::size_t size : {8u, 9u, 24u, 72u, 1376u}) {
    session_pair pair;
    bytes record = seal(pair.sender, plain_packet(size));
    const auto elsewhere = open(pair.receiver, record);
    pair.receiver.recv_next = 0;
    std::fill(std::begin(pair.receiver.recv_window), std::end(pair.receiver.recv_window), 0);
    std::size_t opened_size = 0;
    EXPECT_EQ(lund_open(&pair.receiver, record.data(), record.size(), record.data(), record.size(),
                        &opened_size),
              LUND_OK);
    record.resize(opened_size);
    EXPECT_EQ(record, elsewhere.plain);
  }
}

TEST(Open, ABadTagInPlaceMovesNoReplayState) {
  session_pair pair;
  ASSERT_EQ(open_counter(pair, 10), LUND_OK);
  bytes record = sealed_with_counter(pair, 5000);
  record.back() ^= 1;
  const auto before = replay_state_of(pair.receiver);
  std::size_t size = 1;
  EXPECT_EQ(
      lund_open(&pair.receiver, record.data(), record.size(), record.data(), record.size(), &size),
      LUND_ERR_AUTH);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(replay_state_of(pair.receiver), before);
}

TEST(Open, EveryFlippedBitOfTheRecordIsRefusedAndMovesNothing) {
  session_pair pair;
  ASSERT_EQ(open_counter(pair, 10), LUND_OK);
  const auto before = replay_state_of(pair.receiver);
  const bytes record = sealed_with_counter(pair, 11);
  for (std::size_t bit = 0; bit < 8 * record.size(); ++bit) {
    bytes forged = record;
    forged[bit / 8] = static_cast<std::uint8_t>(forged[bit / 8] ^ (1 << bit % 8));
    EXPECT_NE(open(pair.receiver, forged).result, LUND_OK) << "bit " << bit;
    EXPECT_EQ(replay_state_of(pair.receiver), before) << "bit " << bit;
  }
  EXPECT_EQ(open(pair.receiver, record).result, LUND_OK);
}

TEST(Open, TheHeaderIsAuthenticated) {
  session_pair pair;
  for (const std::size_t at : {2u, 3u}) {
    bytes record = seal(pair.sender, plain_packet(20));
    record[at] ^= 1;
    EXPECT_EQ(open(pair.receiver, record).result, LUND_ERR_AUTH) << "byte " << at;
  }
}

TEST(Open, ARecordOfAnotherSessionIsToldApartWithoutTouchingTheWindow) {
  session_pair pair;
  bytes record = sealed_with_counter(pair, 3000);
  record[4] ^= 1;
  const auto before = replay_state_of(pair.receiver);
  EXPECT_EQ(open(pair.receiver, record).result, LUND_ERR_SESSION);
  EXPECT_EQ(replay_state_of(pair.receiver), before);
}

TEST(Open, OwnRecordsReflectedAreNotAuthentic) {
  session_pair pair;
  EXPECT_EQ(open(pair.sender, seal(pair.sender, plain_packet(20))).result, LUND_ERR_AUTH);
}

TEST(Open, ShortOrForeignDatagramsAreMalformed) {
  session_pair pair;
  bytes record = seal(pair.sender, plain_packet(8));
  EXPECT_EQ(open(pair.receiver, bytes(record.begin(), record.end() - 1)).result,
            LUND_ERR_MALFORMED);
  EXPECT_EQ(open(pair.receiver, {}).result, LUND_ERR_MALFORMED);
  record[1] = LUND_VERSION_PLAIN;
  EXPECT_EQ(open(pair.receiver, record).result, LUND_ERR_MALFORMED);
  record[0] = 0x51;
  EXPECT_EQ(open(pair.receiver, record).result, LUND_ERR_MALFORMED);
}

TEST(Open, AShortBufferIsReportedAndCostsTheRecordNothing) {
  session_pair pair;
  const bytes record = seal(pair.sender, plain_packet(20));
  bytes out(20);
  std::size_t size = 1;
  EXPECT_EQ(lund_open(&pair.receiver, record.data(), record.size(), out.data(), 19, &size),
            LUND_ERR_BUFFER);
  EXPECT_EQ(size, 0u);
  EXPECT_EQ(lund_open(&pair.receiver, record.data(), record.size(), out.data(), 20, &size),
            LUND_OK);
}

TEST(Open, AReplayIsRefusedBeforeAnyDecryption) {
  session_pair pair;
  bytes record = sealed_with_counter(pair, 5);
  ASSERT_EQ(open(pair.receiver, record).result, LUND_OK);
  record.back() ^= 1;  // would be LUND_ERR_AUTH if it were looked at
  EXPECT_EQ(open(pair.receiver, record).result, LUND_ERR_REPLAY);
}

// --- the replay window --------------------------------------------------------------------------

TEST(ReplayWindow, Exactly2048BehindIsTheLastThatPasses) {
  session_pair pair;
  pair.receiver.recv_next = 5000;
  EXPECT_EQ(open_counter(pair, 2951), LUND_ERR_REPLAY);
  EXPECT_EQ(open_counter(pair, 2952), LUND_OK);
  EXPECT_EQ(open_counter(pair, 2952), LUND_ERR_REPLAY);
}

TEST(ReplayWindow, LateRecordsPassOnce) {
  session_pair pair;
  EXPECT_EQ(open_counter(pair, 100), LUND_OK);
  EXPECT_EQ(open_counter(pair, 99), LUND_OK);
  EXPECT_EQ(open_counter(pair, 100), LUND_ERR_REPLAY);
  EXPECT_EQ(open_counter(pair, 99), LUND_ERR_REPLAY);
}

TEST(ReplayWindow, AFarJumpClearsTheWholeMap) {
  session_pair pair;
  EXPECT_EQ(open_counter(pair, 0), LUND_OK);
  EXPECT_EQ(open_counter(pair, 5000), LUND_OK);
  EXPECT_EQ(open_counter(pair, 4999), LUND_OK);
  EXPECT_EQ(open_counter(pair, 4999), LUND_ERR_REPLAY);
  EXPECT_EQ(open_counter(pair, 0), LUND_ERR_REPLAY);
}

TEST(ReplayWindow, CountersMayJumpByAnyAmount) {
  session_pair pair;
  EXPECT_EQ(open_counter(pair, 1), LUND_OK);
  EXPECT_EQ(open_counter(pair, COUNTER_LIMIT - 1), LUND_OK);
  EXPECT_EQ(open_counter(pair, COUNTER_LIMIT - 2048), LUND_OK);
  EXPECT_EQ(open_counter(pair, COUNTER_LIMIT - 2049), LUND_ERR_REPLAY);
}

TEST(ReplayWindow, OnlyAuthenticRecordsMoveIt) {
  session_pair pair;
  ASSERT_EQ(open_counter(pair, 0), LUND_OK);
  bytes forged = sealed_with_counter(pair, 1);
  store_le(forged.data() + 8, std::uint64_t{1'000'000});
  const auto before = replay_state_of(pair.receiver);
  EXPECT_EQ(open(pair.receiver, forged).result, LUND_ERR_AUTH);
  EXPECT_EQ(replay_state_of(pair.receiver), before);
  EXPECT_EQ(open_counter(pair, 1), LUND_OK);
}

// From a map full of seen counters, each jump forgets those that left and no other.
TEST(ReplayWindow, AJumpOfAnyLengthForgetsJustTheCountersThatLeave) {
  for (std::uint64_t start : {4096u, 4097u, 4159u}) {
    for (std::uint64_t gap = 0; gap <= 2050; gap = gap < 200 ? gap + 1 : gap + 61) {
      session_pair pair;
      pair.receiver.recv_next = start;
      std::fill(std::begin(pair.receiver.recv_window), std::end(pair.receiver.recv_window),
                ~std::uint64_t{0});
      const std::uint64_t jump = start + gap;
      ASSERT_EQ(open_counter(pair, jump), LUND_OK);
      for (std::uint64_t c = jump - 2047; c <= jump; ++c) {
        const bool seen = (pair.receiver.recv_window[c / 64 % 32] >> (c % 64) & 1) != 0;
        ASSERT_EQ(seen, c < start || c == jump)
            << "start " << start << " gap " << gap << " c " << c;
      }
    }
  }
}

TEST(ReplayWindow, AgreesWithABookOfAllCountersSeen) {
  session_pair pair;
  std::mt19937_64 random(20'250'101);
  std::set<std::uint64_t> seen;
  std::uint64_t next = 0;
  constexpr std::uint64_t REACH[] = {1, 64, 130, 2047, 2048, 2049, 2300};
  for (int i = 0; i < 20'000; ++i) {
    const std::uint64_t reach = REACH[random() % std::size(REACH)];
    const std::uint64_t step = random() % (reach + 1);
    const bool ahead = random() % 8 == 0;
    const std::uint64_t counter = ahead ? next + step : next - std::min(step, next);
    const bool too_old = counter < next && next - counter > 2048;
    const bool fresh = !too_old && !seen.contains(counter);
    ASSERT_EQ(open_counter(pair, counter), fresh ? LUND_OK : LUND_ERR_REPLAY)
        << "step " << i << " counter " << counter << " next " << next;
    if (fresh) seen.insert(counter);
    next = std::max(next, fresh ? counter + 1 : 0);
    ASSERT_EQ(pair.receiver.recv_next, next);
  }
}

// --- session records ----------------------------------------------------------------------------

TEST(Session, ACopyContinuesWhereTheOriginalStood) {
  session_pair pair;
  ASSERT_EQ(open_counter(pair, 41), LUND_OK);
  lund_session sender = pair.sender;
  lund_session receiver;
  receiver = pair.receiver;
  EXPECT_EQ(sender.send_counter, 42u);
  EXPECT_EQ(replay_state_of(receiver), replay_state_of(pair.receiver));
  EXPECT_EQ(open(receiver, seal(sender, plain_packet(30))).result, LUND_OK);
}

TEST(Session, AssignmentToItselfChangesNothing) {
  session_pair pair;
  pair.sender.send_counter = 7;
  lund_session& alias = pair.sender;
  pair.sender = alias;
  EXPECT_EQ(pair.sender.send_counter, 7u);
  EXPECT_EQ(open(pair.receiver, seal(pair.sender, plain_packet(30))).result, LUND_OK);
}

TEST(Session, WipingLeavesNoByteOfIt) {
  session_pair pair;
  ASSERT_EQ(open_counter(pair, 3), LUND_OK);
  lund_session_wipe(&pair.receiver);
  EXPECT_TRUE(is_wiped(pair.receiver));
}

}  // namespace
