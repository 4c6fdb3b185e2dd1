// The outputs of a card's FPGA, as a driver sets them up and uploads to them.
#include <gtest/gtest.h>

#include <random>

#include "tests/headend/hardware/loaded_card.h"
#include "tests/headend/packets.h"

namespace test {
namespace {

__extension__ using Wide = __int128;
using headend::kSecond;
constexpr u32 kPsiData = 156, kPsiReady = 158, kPsiReadyOfSecond = 174;

// A packet has 1504 bits on the stream and 1632 on the air; the n-th leaves n times its duration after the
// first, in whole nanoseconds: how many have left `t` ns after the first.
u64 leftBy(Nanos t, u32 rate_kBd, unsigned bitsPerSymbol) {
  const Wide perPacket = Wide{1632} * 1'000'000;  // ns * kBd * bits
  return static_cast<u64>((Wide{t + 1} * rate_kBd * bitsPerSymbol + perPacket - 1) / perPacket);
}

TEST(Output, HasExactlyTheBitRateOfEachModulationForEver) {
  for (u32 rate = 5000; rate <= 7000; rate += 125) {
    for (const unsigned bitsPerSymbol : {6U, 7U, 8U}) {
      SCOPED_TRACE(testing::Message() << rate << " kBd, bits " << bitsPerSymbol);
      headend::Multiplexer output;
      output.start(kSecond, headend::BitRate::ofModulation(rate, bitsPerSymbol));
      EXPECT_DOUBLE_EQ(output.rate().perSecond(), rate * 1000.0 * bitsPerSymbol * 188 / 204);
      std::mt19937 steps(rate);
      for (Nanos t = 0; t < 90'000 * kSecond; t += t < kSecond ? steps() % 700'000 : 86'400 * kSecond) {
        output.advance(kSecond + t);
        ASSERT_EQ(output.counts().null, leftBy(t, rate, bitsPerSymbol)) << t;
      }
    }
  }
}

TEST(Output, TakesTheModulatorsSettingsWhenBothItsResetsAreReleased) {
  constexpr u32 kReset = 0, kConstellation = 2, kRateWord = 4;
  Card card;
  card.load();
  const auto onAir = [&] { return card.fpga.output(1).rate().perSecond() * 204 / 188; };
  card.write(kConstellation, 7);
  card.write(kReset, 3);
  EXPECT_DOUBLE_EQ(onAir(), 6'875'000.0 * 8) << "told no symbol rate";
  const std::pair<u32, u16> writes[] = {{kConstellation, 5},   {kRateWord + 2, 0xCC}, {kRateWord + 4, 0xCC},
                                        {kRateWord + 6, 0xCC}, {kReset, 3},           {kReset, 2}};
  for (const auto& [reg, value] : writes) {
    card.write(reg, value);
    EXPECT_DOUBLE_EQ(onAir(), 6'875'000.0 * 8) << "register " << reg;
  }
  card.write(kReset, 3);
  EXPECT_DOUBLE_EQ(onAir(), 5'000'000.0 * 6);
}

// A configured card whose first output is watched.
struct Uploads : Card {
  PacketKeeper sink;

  Uploads() {
    load();
    fpga.output(0).setSink(&sink);
  }
  void words(int count, u16 word) {
    for (int i = 0; i < count; ++i) write(kPsiData, word);
  }
  void filler(int count = 16) { words(count, 0xFFFF); }
  void data(std::size_t count, u64 number = 2) {
    Bytes whole = packet({.number = number});
    whole.resize(count, 0x22);
    for (const u8 byte : whole) write(kPsiData, byte);
  }
  void insert(u64 number) { data(188, number), filler(); }
  std::vector<u64> left(Nanos after) {
    fpga.advanceOutputs(now += after);
    std::vector<u64> numbers;
    for (const auto& [place, each] : sink.kept) numbers.push_back(numberIn(each));
    return numbers;
  }
};

// Each row is what a driver writes between two good packets.
TEST(Output, LosesAndCountsAMisframedPacketAndTakesTheNextOne) {
  struct Row {
    const char* name;
    void (*bad)(Uploads&);
    u64 misframed = 1;
    std::vector<u64> left = {1, 3};
    u64 withoutSync = 0;
  };
  const Row rows[] = {
      {"a byte short", [](Uploads& u) { u.data(187), u.filler(); }},
      {"no filler", [](Uploads& u) { u.data(188); }},
      {"a filler short", [](Uploads& u) { u.data(188), u.filler(15); }},
      {"a filler too many", [](Uploads& u) { u.data(188), u.filler(17); }, 1, {1, 2, 3}},
      {"a byte too many", [](Uploads& u) { u.data(189), u.filler(); }},
      {"a high byte in the data", [](Uploads& u) { u.data(100), u.words(88, 0x0147), u.filler(); }},
      {"one after the data", [](Uploads& u) { u.data(188), u.words(16, 0xFF00); }},
      {"erased", [](Uploads& u) { u.words(188, 0xFF), u.filler(); }, 0, {1, 0xFFFFFFFF, 3}, 1},
  };
  for (const Row& row : rows) {
    Uploads card;
    card.insert(1);
    row.bad(card);
    card.insert(3);
    EXPECT_EQ(card.left(kSecond), row.left) << row.name;
    EXPECT_EQ(card.count("psi_packet_misframed"), row.misframed) << row.name;
    EXPECT_EQ(card.count("psi_packet_without_sync"), row.withoutSync) << row.name;
  }
}

TEST(Output, TellsOfRoomAndLosesWhatIsWrittenToAFullFifo) {
  Uploads card;
  std::vector<u64> written;
  while (card.read(kPsiReady) != 0 && written.size() < 100) card.insert(written.emplace_back(written.size()));
  EXPECT_EQ(card.read(kPsiReadyOfSecond), 1);
  card.insert(1000);
  EXPECT_EQ(card.count("psi_fifo_overflow"), 1U);
  card.now += 1632 * 1'000'000 / (6875 * 6) + 1;  // a packet's time
  EXPECT_EQ(card.read(kPsiReady), 1);
  card.insert(written.emplace_back(written.size()));
  EXPECT_EQ(card.read(kPsiReady), 0);
  EXPECT_EQ(card.left(kSecond), written);
}

TEST(Output, TakesAFilterAtTheRiseOfItsStrobe) {
  constexpr u32 kPass = 0, kStrobe = 2, kLow = 4, kHigh = 6;
  struct Step {
    const char* name;
    std::vector<std::pair<u32, u16>> writes;
    u16 pid;
    bool passes;
  };
  const Step steps[] = {
      {"bits that do not count, no strobe", {{kLow, 0x1234}, {kHigh, 0xFFF2}, {kPass, 0xFFFE}}, 0x1234, true},
      {"the strobe rises", {{kStrobe, 1}}, 0x1234, false},
      {"it stays", {{kLow, 0x35}, {kHigh, 0x12}, {kStrobe, 0xFFFF}}, 0x1235, true},
      {"it falls", {{kStrobe, 0xFFFE}, {kPass, 1}, {kLow, 0x34}}, 0x1234, false},
      {"it rises again", {{kStrobe, 1}}, 0x1234, true},
      {"and again", {{kStrobe, 0}, {kPass, 0}, {kStrobe, 1}}, 0x1234, false},
  };
  Card card;
  card.load();
  const Bytes any = packet({});
  const auto passes = [&](headend::Multiplexer& output, u16 pid) {
    const u64 before = output.counts().filtered;
    output.offer(card.now, headend::TsPacketView(any.data(), 188), pid);
    return output.counts().filtered == before;
  };
  for (const std::size_t channel : {0U, 1U}) {
    headend::Multiplexer& output = card.fpga.output(channel);
    for (const Step& step : steps) {
      for (const auto& [reg, value] : step.writes) card.write((channel == 0 ? 262 : 270) + reg, value);
      EXPECT_EQ(passes(output, step.pid), step.passes) << channel << ": " << step.name;
    }
  }
  card.load();
  EXPECT_TRUE(passes(card.fpga.output(0), 0x1234)) << "after a new configuration";
}

}  // namespace
}  // namespace test
