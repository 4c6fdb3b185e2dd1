// The configuration port of a card's FPGA, and what the card is before and after.
#include <gtest/gtest.h>

#include "tests/headend/hardware/loaded_card.h"

namespace test {
namespace {

TEST(Configuration, TakesAWholeStreamAndNoOther) {
  Bytes whole(32, 0xFF);
  const u8 kRest[] = {'Q',  'A',  'M',  'B',  0,    0,    0,    5,            // the payload's length
                      0x12, 0x34, 0x56, 0x78, 0x9A, 0x4C, 0xA0, 0xF5, 0xAF};  // and a CRC of IEEE 802.3
  whole.insert(whole.end(), std::begin(kRest), std::end(kRest));
  const auto accepts = [](const Bytes& stream, int closingClocks = 200) {
    Card card(false);
    card.load(stream, closingClocks);
    EXPECT_TRUE(card.violations.counts().empty());
    return card.done();
  };
  for (const int clocks : {0, 9, 10, 30}) EXPECT_EQ(accepts(whole, clocks), clocks >= 10) << clocks;
  for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
    Bytes flipped = whole;
    flipped[bit / 8] ^= static_cast<u8>(0x80 >> bit % 8);
    EXPECT_FALSE(accepts(flipped)) << "bit " << bit;
  }
  for (auto end = whole.begin(); end != whole.end(); ++end) EXPECT_FALSE(accepts({whole.begin(), end}));
  whole.push_back(0);
  EXPECT_FALSE(accepts(whole));
}

TEST(Configuration, TakesAnIntegratorsStreamInWholeBytes) {
  for (const int bits : {0, 24, 25, 28, 31}) {
    Card card;
    card.request();
    for (int i = 0; i < bits; ++i) card.set(kData, 1), card.clocks(1);
    card.clocks(9);
    EXPECT_FALSE(card.done()) << bits;
    card.clocks(1);
    EXPECT_EQ(card.done(), bits == 24) << bits;
  }
}

TEST(Configuration, LosesAndCountsDataWhileThePortIsClosedOrTheCardNotReady) {
  struct Row {
    const char* name;
    void (*drive)(Card&);
    bool done;
    u64 lost;
  };
  const Row rows[] = {
      {"another guard", [](Card& c) { c.request(0xC0DF), c.clockIn({0x55}), c.clocks(10); }, false, 18},
      {"closed in the middle",
       [](Card& c) {
         c.request(), c.clockIn({1}), c.set(kGuard, 0), c.clockIn({2}), c.set(kRequest, kStart);
         c.set(kGuard, kOpen), c.clockIn({3}), c.clocks(10);
       },
       true, 8},
      {"before the release", [](Card& c) { c.set(kGuard, kOpen), c.set(kRequest, kStart), c.clocks(3); },
       false, 3},
      {"before the status rises", [](Card& c) { c.request(), c.now -= 1'000'000, c.clocks(3); }, false, 3},
      {"configured already", [](Card& c) { c.load(), c.set(kGuard, kOpen), c.clockIn({1}); }, true, 0},
  };
  for (const Row& row : rows) {
    Card card;
    row.drive(card);
    EXPECT_EQ(card.done(), row.done) << row.name;
    EXPECT_EQ(card.count("config_data_while_not_ready"), row.lost) << row.name;
  }
}

TEST(Configuration, ACardIsBlankBeforeAndAllZeroAfter) {
  Card card;
  for (const u64 before : {0U, 1U}) {
    for (u32 offset = 0; offset < 278; offset += 2) {
      card.write(offset, 0x1234);
      EXPECT_EQ(card.read(offset), 0xFFFF) << offset;
    }
    const u64 left = card.fpga.output(1).counts().total();
    card.fpga.output(1).advance(card.now += 1'000'000'000);
    EXPECT_EQ(card.fpga.output(1).counts().total(), left) << "a blank card sends nothing";
    card.set(kRequest, kStart);
    EXPECT_EQ(card.port.read(kRequest, card.now), before == 0 ? 0 : kStart)
        << "behind a guard, at first closed";

    card.load();
    card.port.loaderLeft();
    EXPECT_EQ(card.port.read(kRequest, card.now), kRelease);
    EXPECT_EQ(card.port.read(kStatus, card.now), 1);
    for (u32 offset = 0; offset < 278; offset += 2) {
      const bool ready = offset == 158 || offset == 174;  // a status that the FIFO drives: there is room
      EXPECT_EQ(card.read(offset), ready ? 1 : offset == 106 ? 5 : 0) << offset;
    }
    for (u32 offset = 200; offset < 230; offset += 2) card.write(offset, static_cast<u16>(offset * 257));
    for (u32 offset = 200; offset < 230; offset += 2)
      EXPECT_EQ(card.read(offset), static_cast<u16>(offset * 257));

    EXPECT_EQ(card.count("config_guard_left_open"), before);
    card.set(kGuard, kOpen);
    card.set(kRequest, kStart);
    card.port.loaderLeft();
    EXPECT_EQ(card.port.read(kStatus, card.now), 0);
    EXPECT_FALSE(card.done());
  }
  EXPECT_EQ(card.fpga.configuration().attempts(), 5U);
}

}  // namespace
}  // namespace test
