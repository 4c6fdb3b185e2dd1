#include <gtest/gtest.h>

#include <algorithm>

#include "tests/headend/hardware/loaded_card.h"

namespace test {
namespace {

constexpr const char* kNotReady = "config_data_while_not_ready";

void append32(Bytes& out, u32 value) {
  for (const int shift : {24, 16, 8, 0}) out.push_back(static_cast<u8>(value >> shift));
}

Bytes streamOf(const Bytes& payload) {
  Bytes stream(32, 0xFF);
  for (const char c : {'Q', 'A', 'M', 'B'}) stream.push_back(static_cast<u8>(c));
  append32(stream, static_cast<u32>(payload.size()));
  stream.insert(stream.end(), payload.begin(), payload.end());
  u32 crc = ~0U;  // IEEE 802.3, bit by bit
  for (std::size_t bit = 36 * 8; bit < stream.size() * 8; ++bit) {
    const u32 feedback = (crc ^ stream[bit / 8] >> bit % 8) & 1;
    crc = crc >> 1 ^ (feedback != 0 ? 0xEDB88320U : 0);
  }
  append32(stream, ~crc);
  return stream;
}

TEST(Configuration, TakesAWholeStreamAndNoOther) {
  const Bytes whole = streamOf({0x12, 0x34, 0x56, 0x78, 0x9A});
  const auto accepts = [](const Bytes& stream, int closingClocks = 200) {
    Card card(false);
    card.load(stream, closingClocks);
    EXPECT_TRUE(card.violations.counts().empty());
    return card.done();
  };
  for (const int clocks : {10, 30}) EXPECT_TRUE(accepts(whole, clocks)) << clocks;
  for (const int clocks : {0, 9}) EXPECT_FALSE(accepts(whole, clocks)) << clocks;
  EXPECT_TRUE(accepts(headend::makeSampleBitstream()));
  EXPECT_FALSE(accepts(streamOf({})));
  Bytes longer = whole;
  longer.push_back(0);
  EXPECT_FALSE(accepts(longer, 10));
  for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
    Bytes flipped = whole;
    flipped[bit / 8] ^= static_cast<u8>(0x80 >> bit % 8);
    EXPECT_FALSE(accepts(flipped)) << "bit " << bit;
  }
  for (auto end = whole.begin(); end != whole.end(); ++end) EXPECT_FALSE(accepts({whole.begin(), end}));
  Card late(false);  // one clock too many before the first bit
  late.request();
  late.set(kData, 1), late.clocks(1);
  late.clockIn(whole), late.clocks(200);
  EXPECT_FALSE(late.done());
}

TEST(Configuration, TakesAnIntegratorsStreamInWholeBytes) {
  for (const int bits : {0, 24, 25, 28, 31}) {
    Card card(true);
    card.request();
    for (int i = 0; i < bits; ++i) card.set(kData, 1), card.clocks(1);
    for (const int clocks : {9, 1}) {
      EXPECT_FALSE(card.done()) << bits;
      card.clocks(clocks);
    }
    EXPECT_EQ(card.done(), bits == 24) << bits;
  }
}

TEST(Configuration, LosesAndCountsDataWhileThePortIsClosedOrTheCardNotReady) {
  struct Row {
    const char* name;
    void (*drive)(Card&);
    bool done;
    std::uint64_t lost;
  };
  const Row rows[] = {
      {"half of the guard", [](Card& c) { c.request(0xC0DF), c.clockIn(0x55), c.clocks(10); }, false, 18},
      {"the guard's bytes swapped", [](Card& c) { c.request(0xDEC0), c.clockIn(0x55), c.clocks(10); }, false,
       18},
      {"no guard", [](Card& c) { c.request(0), c.clockIn(0x55), c.clocks(10); }, false, 18},
      {"closed in the middle",
       [](Card& c) {
         c.request(), c.clockIn(1), c.set(kGuard, 0), c.clockIn(2), c.set(kRequest, kStart),
             c.set(kGuard, kOpen), c.clockIn(3), c.clocks(10);
       },
       true, 8},
      {"before the release",
       [](Card& c) {
         c.set(kGuard, kOpen), c.set(kRequest, kStart), c.clockIn(1), c.now += 1'000'000, c.clocks(10);
       },
       false, 18},
      {"before the status rises",
       [](Card& c) { c.request(), c.now -= 1'000'000, c.clockIn(1), c.now += 1'000'000, c.clocks(10); },
       false, 8},
      {"configured already", [](Card& c) { c.load(), c.set(kGuard, kOpen), c.clockIn(1); }, true, 0},
  };
  for (const Row& row : rows) {
    Card card;
    row.drive(card);
    EXPECT_EQ(card.done(), row.done) << row.name;
    EXPECT_EQ(card.count(kNotReady), row.lost) << row.name;
  }
}

TEST(Configuration, RequestsReadBackAndMakeTheCardBlankAgain) {
  Card card;
  card.set(kRequest, kStart);
  EXPECT_EQ(card.port.read(kRequest, card.now), 0) << "behind a closed guard";
  card.load();
  EXPECT_EQ(card.port.read(kRequest, card.now), kRelease);
  EXPECT_NE(card.port.read(kStatus, card.now), 0);
  card.write(200, 0x1234);
  card.set(kGuard, kOpen);
  card.set(kRequest, kStart);
  EXPECT_EQ(card.port.read(kStatus, card.now), 0);
  EXPECT_FALSE(card.done());
  EXPECT_EQ(card.read(200), 0xFFFF);
  const std::uint64_t left = card.fpga.output(1).counts().total();
  card.fpga.output(1).advance(card.now + 1'000'000'000);
  EXPECT_EQ(card.fpga.output(1).counts().total(), left) << "a blank card sends nothing";
  card.port.loaderLeft();
  EXPECT_EQ(card.count("config_guard_left_open"), 1U);
  card.load();
  card.port.loaderLeft();
  EXPECT_EQ(card.count("config_guard_left_open"), 1U);
  EXPECT_EQ(card.read(200), 0);
  EXPECT_EQ(card.fpga.configuration().attempts(), 3U);
}

TEST(Configuration, ACardIsDeafBeforeAndAllZeroAfter) {
  Card card;
  for (u32 offset = 0; offset < 278; offset += 2) {
    card.write(offset, 0x1234);
    EXPECT_EQ(card.read(offset), 0xFFFF) << offset;
  }
  card.load();
  for (u32 offset = 0; offset < 278; offset += 2) {
    const bool ready = offset == 158 || offset == 174;  // a status that the FIFO drives: there is room
    EXPECT_EQ(card.read(offset), ready ? 1 : offset == 106 ? 5 : 0) << offset;
  }
  for (u32 offset = 200; offset < 230; offset += 2) card.write(offset, static_cast<u16>(offset * 257));
  for (u32 offset = 200; offset < 230; offset += 2)
    EXPECT_EQ(card.read(offset), static_cast<u16>(offset * 257));
  EXPECT_TRUE(card.violations.counts().empty());
}

}  // namespace
}  // namespace test
