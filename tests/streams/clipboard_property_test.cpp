// What must hold of every transfer, over networks that lose, repeat and reorder.
#include <gtest/gtest.h>

#include <map>
#include <set>

#include "tests/streams/clipboard_link.h"

namespace {

using namespace clipboard_rig;

struct Counts {
  int offered = 0, delivered = 0, superseded = 0, given_up = 0, applied = 0, outdated = 0;
};

int count_of(const End& end, std::uint32_t id, const std::string& part) {
  const std::string start = "clipboard: #" + std::to_string(id) + " ";
  return static_cast<int>(std::ranges::count_if(end.log, [&](const std::string& line) {
    return line.starts_with(start) && line.find(part) != std::string::npos;
  }));
}

// Every item offered has one end, told in one line, and what was said to be delivered has arrived,
// once and whole.
void check(const std::map<std::uint32_t, Bytes>& offered, const End& sender, const End& receiver,
           Counts& counts) {
  std::map<std::uint32_t, int> arrivals;
  for (const End::Item& item : receiver.items) {
    ASSERT_TRUE(offered.contains(item.id));
    EXPECT_TRUE(item.bytes == offered.at(item.id)) << item.id;
    EXPECT_EQ(++arrivals[item.id], 1) << item.id;
    ++counts.applied;
  }
  for (const auto& [id, bytes] : offered) {
    const int delivered = count_of(sender, id, "delivered");
    const int superseded = count_of(sender, id, "superseded");
    const int given_up = count_of(sender, id, "gave up");
    EXPECT_EQ(delivered + superseded + given_up, 1) << id;
    const auto outdated = std::ranges::count_if(receiver.log, [&](const std::string& line) {
      return line.starts_with("clipboard: received #" + std::to_string(id) + " ") &&
             line.find("not applied") != std::string::npos;
    });
    if (delivered == 1) {
      EXPECT_EQ(arrivals[id] + outdated, 1) << id;
    }
    ++counts.offered;
    counts.delivered += delivered;
    counts.superseded += superseded;
    counts.given_up += given_up;
    counts.outdated += static_cast<int>(outdated);
  }
}

TEST(ClipboardProperty, EveryItemEndsWithItsVeryBytesAtThePeerOrALineThatSaysWhyNot) {
  Counts counts;
  for (std::uint64_t seed = 1; seed <= 400; ++seed) {
    SCOPED_TRACE(testing::Message() << "seed " << seed);
    SeededRandom random(seed);
    const double losses[] = {0, 0.01, 0.1, 0.3, 0.6, 0.95};
    SimulatedLink link(seed, {.delay_us = random.below(60'000),
                              .jitter_us = random.below(40'000),
                              .loss = losses[random.below(6)],
                              .duplicate = random.chance(0.5) ? 0.2 : 0});
    // Ids near the wrap, now and then.
    for (const int side : {0, 1})
      if (random.chance(0.2))
        lund_clip_set_last_id(link.end(side).clip,
                              0xFFFFFFFF - static_cast<std::uint32_t>(random.below(3)));
    std::map<std::uint32_t, Bytes> offered[2];
    for (std::uint64_t offers = 1 + random.below(5); offers > 0; --offers) {
      const int side = random.chance(0.3) ? 1 : 0;
      const Bytes item = item_of(1 + random.below(random.chance(0.2) ? 300'000 : 20'000),
                                 static_cast<std::uint32_t>(random.next()));
      const std::uint32_t id =
          link.offer(side, item, random.chance(0.5) ? LUND_CLIP_PNG : LUND_CLIP_TEXT);
      ASSERT_NE(id, 0u);
      offered[side][id] = item;
      link.net.run_for_us(random.below(random.chance(0.3) ? 3'000'000 : 50'000));
    }
    ASSERT_TRUE(link.net.run_until([&] { return link.idle(); }, 125'000));
    link.net.run_for_ms(1'000);  // what is still under way finds everything ended
    check(offered[0], link.end(0), link.end(1), counts);
    check(offered[1], link.end(1), link.end(0), counts);
  }
  std::printf("%d items: %d delivered, %d superseded, %d given up; %d applied, %d outdated\n",
              counts.offered, counts.delivered, counts.superseded, counts.given_up, counts.applied,
              counts.outdated);
  // The networks are bad enough to show every end, and not so bad as to show nothing else.
  EXPECT_GT(counts.delivered, counts.offered / 3);
  EXPECT_GT(counts.superseded, 50);
  EXPECT_GT(counts.given_up, 10);
  EXPECT_GT(counts.outdated, 5);
}

}  // namespace
