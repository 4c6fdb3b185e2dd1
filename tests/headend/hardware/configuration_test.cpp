#include <gtest/gtest.h>

#include <algorithm>

#include "tests/headend/hardware/loaded_card.h"

namespace test {
namespace {

// IEEE 802.3, bit by bit.
u32 crc32(std::span<const u8> bytes) {
  u32 crc = ~0U;
  for (const u8 byte : bytes) {
    crc ^= byte;
    for (int i = 0; i < 8; ++i) crc = (crc & 1) != 0 ? crc >> 1 ^ 0xEDB88320U : crc >> 1;
  }
  return ~crc;
}

void append32(Bytes& out, u32 value) {
  for (const int shift : {24, 16, 8, 0}) out.push_back(static_cast<u8>(value >> shift));
}

Bytes smallStream(const Bytes& payload = {0x12, 0x34, 0x56, 0x78, 0x9A}) {
  Bytes stream(32, 0xFF);
  for (const char c : {'Q', 'A', 'M', 'B'}) stream.push_back(static_cast<u8>(c));
  append32(stream, static_cast<u32>(payload.size()));
  stream.insert(stream.end(), payload.begin(), payload.end());
  append32(stream, crc32(std::span(stream).subspan(36)));
  return stream;
}

Bytes reversed(Bytes stream) {
  for (u8& byte : stream) {
    u8 other = 0;
    for (int i = 0; i < 8; ++i) other = static_cast<u8>(other << 1 | (byte >> i & 1));
    byte = other;
  }
  return stream;
}

TEST(Bitstream, TheSampleIsTakenAfterTenClosingClocksAndNotWithAFault) {
  const Bytes sample = headend::makeSampleBitstream();
  const std::size_t last = sample.size() - 1;
  EXPECT_EQ(crc32(std::span(sample).subspan(36, sample.size() - 40)),
            static_cast<u32>(sample[last - 3] << 24 | sample[last - 2] << 16 | sample[last - 1] << 8 |
                             sample[last]));
  struct Row {
    const char* name;
    Bytes stream;
    int clocks;
    bool done;
  };
  Bytes flipped = sample;
  flipped[sample.size() / 2] ^= 0x10;
  Bytes longer = sample;
  longer.push_back(0);
  Bytes swapped = sample;
  std::swap(swapped[50'000], swapped[50'001]);
  const Row rows[] = {
      {"whole", sample, 10, true},
      {"more clocks than needed", sample, 30, true},
      {"nine closing clocks", sample, 9, false},
      {"a byte more", longer, 10, false},
      {"no closing clocks", sample, 0, false},
      {"a flipped bit in the middle", flipped, 100, false},
      {"bytes swapped", swapped, 100, false},
      {"least significant bit first", reversed(sample), 100, false},
      {"cut in half", {sample.begin(), sample.begin() + 60'000}, 100, false},
      {"the last byte missing", {sample.begin(), sample.end() - 1}, 7, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Card card(false);
    card.load(row.stream, row.clocks);
    EXPECT_EQ(card.done(), row.done);
    EXPECT_TRUE(card.violations.counts().empty());
  }
}

TEST(Bitstream, NoSingleWrongBitAndNoShiftGoesUnseen) {
  const Bytes whole = smallStream();
  const auto accepted = [](const Bytes& stream) {
    Card card(false);
    card.load(stream, 200);
    return card.done();
  };
  ASSERT_TRUE(accepted(whole));
  for (std::size_t bit = 0; bit < whole.size() * 8; ++bit) {
    Bytes flipped = whole;
    flipped[bit / 8] ^= static_cast<u8>(0x80 >> bit % 8);
    EXPECT_FALSE(accepted(flipped)) << "bit " << bit;
  }
  for (std::size_t cut = 0; cut < whole.size(); ++cut) {
    EXPECT_FALSE(accepted({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(cut)})) << cut;
  }
  EXPECT_FALSE(accepted(smallStream({})));
  EXPECT_FALSE(accepted(reversed(whole)));
  Card late(false);  // one clock too many before the first bit
  late.request();
  late.set(kData, 1);
  late.clocks(1);
  late.clockIn(whole);
  late.clocks(200);
  EXPECT_FALSE(late.done());
}

TEST(Bitstream, AnIntegratorsOwnIsTakenInWholeBytes) {
  for (const int extraBits : {0, 1, 4, 7}) {
    Card card(true);
    card.request();
    card.clockIn(Bytes{0x00, 0xFF, 0x12});
    for (int i = 0; i < extraBits; ++i) card.set(kData, 1), card.clocks(1);
    EXPECT_FALSE(card.done());
    card.clocks(9);
    EXPECT_FALSE(card.done());
    card.clocks(1);
    EXPECT_EQ(card.done(), extraBits == 0) << extraBits;
  }
  Card nothing(true);
  nothing.request();
  nothing.clocks(10);
  EXPECT_FALSE(nothing.done());
}

TEST(ConfigPort, HearsNothingWhileItsGuardIsClosed) {
  for (const u16 guard : std::initializer_list<u16>{0, 1, 0xC0DF, 0xDEC0, 0xFFFF}) {
    SCOPED_TRACE(guard);
    Card card;
    card.set(kGuard, 0xC0DE);
    card.set(kGuard, guard);
    card.set(kRequest, 0x3C5A);
    EXPECT_EQ(card.port.read(kRequest, card.now), 0);
    card.set(kRequest, 0xC3A5);
    card.now += 1'000'000;
    EXPECT_EQ(card.port.read(kStatus, card.now), 0);
    card.clockIn(Bytes{0x55});
    card.clocks(10);
    EXPECT_FALSE(card.done());
    EXPECT_EQ(card.fpga.configuration().attempts(), 0U);
    EXPECT_EQ(card.count("config_data_while_not_ready"), 18U);
  }
  Card card;  // closed in the middle of a stream: those bits are lost
  card.request();
  card.clockIn(Bytes{1, 2});
  card.set(kGuard, 0);
  card.clockIn(Bytes{3});
  card.set(kRequest, 0x3C5A);
  card.set(kGuard, 0xC0DE);
  card.clockIn(Bytes{4});
  EXPECT_EQ(card.port.read(kRequest, card.now), 0xC3A5);
  card.clocks(10);
  EXPECT_TRUE(card.done());
  EXPECT_EQ(card.count("config_data_while_not_ready"), 8U);
}

TEST(ConfigPort, DataBeforeTheStatusRisesIsLostAndCounted) {
  Card card;
  card.set(kGuard, 0xC0DE);
  card.set(kRequest, 0x3C5A);
  card.clockIn(Bytes{0xAA});
  card.set(kRequest, 0xC3A5);
  EXPECT_EQ(card.port.read(kStatus, card.now), 0);
  card.clockIn(Bytes{0xAA});
  EXPECT_EQ(card.count("config_data_while_not_ready"), 16U);
  card.now += 1'000'000;
  EXPECT_NE(card.port.read(kStatus, card.now), 0);
  card.clocks(10);
  EXPECT_FALSE(card.done());
  card.clockIn(Bytes{0xAA});
  EXPECT_EQ(card.count("config_data_while_not_ready"), 16U);
}

TEST(ConfigPort, ANewRequestMakesTheCardBlankAgain) {
  Card card;
  card.load();
  ASSERT_TRUE(card.done());
  card.write(200, 0x1234);
  card.set(kGuard, 0xC0DE);
  card.set(kRequest, 0x3C5A);
  EXPECT_FALSE(card.done());
  EXPECT_EQ(card.read(200), 0xFFFF);
  card.load();
  EXPECT_TRUE(card.done());
  EXPECT_EQ(card.read(200), 0);
  EXPECT_EQ(card.fpga.configuration().attempts(), 3U);
}

TEST(ConfigPort, AGuardLeftOpenIsCounted) {
  Card card;
  card.request();
  card.port.loaderLeft();
  EXPECT_EQ(card.count("config_guard_left_open"), 1U);
  card.set(kGuard, 0);
  card.port.loaderLeft();
  EXPECT_EQ(card.count("config_guard_left_open"), 1U);
}

TEST(CardFpga, IsDeafBeforeConfigurationAndAllZeroAfter) {
  Card card;
  for (u32 offset = 0; offset < 278; offset += 2) {
    card.write(offset, 0x1234);
    EXPECT_EQ(card.read(offset), 0xFFFF) << offset;
  }
  card.load();
  for (u32 offset = 0; offset < 278; offset += 2) {
    const bool ready = offset == 158 || offset == 174;  // a status that the FIFO drives: there is room
    const u16 version = offset == 106 ? 5 : 0;
    EXPECT_EQ(card.read(offset), ready ? 1 : version) << offset;
  }
  for (u32 offset = 200; offset < 230; offset += 2) card.write(offset, static_cast<u16>(offset * 257));
  for (u32 offset = 200; offset < 230; offset += 2)
    EXPECT_EQ(card.read(offset), static_cast<u16>(offset * 257));
  EXPECT_TRUE(card.violations.counts().empty());
}

}  // namespace
}  // namespace test
