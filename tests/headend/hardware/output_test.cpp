// The outputs of a card's FPGA, as a driver sets them up and uploads to them.
#include <gtest/gtest.h>

#include <random>

#include "tests/headend/hardware/loaded_card.h"
#include "tests/headend/packets.h"

namespace test {
namespace {

__extension__ using Wide = __int128;
constexpr Nanos kSecond = 1'000'000'000;
constexpr u32 kPsiData = 156, kPsiReady = 158, kPsiReadyOfSecond = 174, kTsLock = 110;

// The registers as a driver writes them: 2^26 * 1000 / kBd, rounded down, a byte each; they count from the
// release of the reset on.
void program(Card& card, u32 rate_kBd, u16 code) {
  const u32 word = static_cast<u32>((std::uint64_t{1} << 26) * 1000 / rate_kBd);
  card.write(2, code);
  for (u32 i = 0; i < 4; ++i) card.write(4 + 2 * i, static_cast<u16>(word >> (24 - 8 * i) & 0xFF));
  const headend::BitRate before = card.fpga.output(0).rate();
  card.write(0, 2);
  EXPECT_EQ(card.fpga.output(0).rate(), before);
  card.write(0, 3);
}

// A packet has 1504 bits on the stream and 1632 on the air; the n-th leaves n times its duration after the
// first, in whole nanoseconds: how many have left `t` ns after the first.
std::uint64_t leftBy(Nanos t, u32 rate_kBd, unsigned bitsPerSymbol) {
  const Wide perPacket = Wide{1632} * 1'000'000;  // ns * kBd * bits
  const Wide rate = Wide{rate_kBd} * bitsPerSymbol;
  return static_cast<std::uint64_t>((Wide{t + 1} * rate + perPacket - 1) / perPacket);
}

TEST(Output, HasExactlyTheBitRateOfEachModulationForEver) {
  for (u32 rate = 5000; rate <= 7000; rate += 125) {
    for (const auto& [code, bitsPerSymbol] : {std::pair<u16, unsigned>{5, 6U}, {6, 7U}, {7, 8U}}) {
      SCOPED_TRACE(testing::Message() << rate << " kBd, code " << code);
      Card card;
      card.load();
      program(card, rate, code);
      headend::Multiplexer& output = card.fpga.output(0);
      EXPECT_DOUBLE_EQ(output.rate().perSecond(), rate * 1000.0 * bitsPerSymbol * 188 / 204);
      output.start(card.now, headend::BitRate(output.rate()));
      const std::uint64_t before = output.counts().null;
      std::mt19937 steps(rate);
      for (Nanos t = 0; t < kSecond; t += static_cast<Nanos>(steps() % 700'000)) {
        output.advance(card.now + t);
        ASSERT_EQ(output.counts().null - before, leftBy(t, rate, bitsPerSymbol)) << t;
      }
      for (const Nanos t : {kSecond - 1, kSecond, 86'400 * kSecond + 12'345}) {
        output.advance(card.now + t);
        ASSERT_EQ(output.counts().null - before, leftBy(t, rate, bitsPerSymbol)) << t;
      }
    }
  }
}

TEST(Output, HasTheRateOf6875KiloBaudWhereTheModulatorWasToldNone) {
  Card card;
  card.load();
  card.write(2, 7);
  card.write(0, 3);
  EXPECT_DOUBLE_EQ(card.fpga.output(0).rate().perSecond(), 6'875'000.0 * 8 * 188 / 204);
}

// A configured card whose first output is watched.
struct Uploads : Card {
  PacketKeeper kept;

  Uploads() {
    load();
    fpga.output(0).setSink(&kept);
  }
  void words(int count, u16 word) {
    for (int i = 0; i < count; ++i) write(kPsiData, word);
  }
  void filler(int count = 16) { words(count, 0xFFFF); }
  void data(std::size_t from, std::size_t count, u64 number = 2) {
    Bytes whole = packet({.number = number});
    whole.resize(from + count, 0x22);
    for (std::size_t i = from; i < from + count; ++i) write(kPsiData, whole[i]);
  }
  void insert(u64 number) { data(0, 188, number), filler(); }
  std::vector<u64> left(Nanos after) {
    fpga.advanceOutputs(now += after);
    std::vector<u64> numbers;
    for (const auto& each : kept.seen) numbers.push_back(each.number);
    return numbers;
  }
};

// Each row is what a driver writes between two good packets.
TEST(Output, LosesAndCountsAMisframedPacketAndTakesTheNextOne) {
  struct Row {
    const char* name;
    void (*bad)(Uploads&);
    std::uint64_t misframed = 1;
    std::vector<u64> left = {1, 3};
    std::uint64_t withoutSync = 0;
  };
  const Row rows[] = {
      {"good", [](Uploads& u) { u.data(0, 188), u.filler(); }, 0, {1, 2, 3}},
      {"a byte short", [](Uploads& u) { u.data(0, 187), u.filler(); }},
      {"only a byte", [](Uploads& u) { u.data(0, 1), u.filler(); }},
      {"no filler", [](Uploads& u) { u.data(0, 188); }},
      {"a filler short", [](Uploads& u) { u.data(0, 188), u.filler(15); }},
      {"a filler too many", [](Uploads& u) { u.data(0, 188), u.filler(17); }, 1, {1, 2, 3}},
      {"filler alone", [](Uploads& u) { u.filler(); }},
      {"a byte too many", [](Uploads& u) { u.data(0, 189), u.filler(); }},
      {"a high byte in the data",
       [](Uploads& u) { u.data(0, 100), u.words(1, 0x0147), u.data(101, 87), u.filler(); }},
      {"a high byte in the first word", [](Uploads& u) { u.words(1, 0xFF47), u.data(1, 187), u.filler(); }},
      {"another word as filler", [](Uploads& u) { u.data(0, 188), u.words(16, 0xFF00); }},
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
  ASSERT_GE(written.size(), 1U);
  ASSERT_LT(written.size(), 32U);
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
      {"nothing", {}, 0x1FFF, true},
      {"bits that do not count, no strobe", {{kLow, 0x1234}, {kHigh, 0xFFF2}, {kPass, 0xFFFE}}, 0x1234, true},
      {"the strobe rises", {{kStrobe, 1}}, 0x1234, false},
      {"it stays", {{kLow, 0x35}, {kHigh, 0x12}, {kStrobe, 0xFFFF}}, 0x1235, true},
      {"it falls", {{kStrobe, 0xFFFE}, {kPass, 1}, {kLow, 0x34}}, 0x1234, false},
      {"it rises again", {{kStrobe, 1}}, 0x1234, true},
      {"and again", {{kStrobe, 0}, {kPass, 0}, {kStrobe, 1}}, 0x1234, false},
  };
  Card card;
  card.load();
  const auto passes = [&](std::size_t channel, u16 pid) {
    headend::Multiplexer& output = card.fpga.output(channel);
    const std::uint64_t before = output.counts().filtered;
    const Bytes any = packet({});
    output.offer(card.now, headend::TsPacketView(any.data(), 188), pid);
    return output.counts().filtered == before;
  };
  for (const std::size_t channel : {0U, 1U}) {
    for (const Step& step : steps) {
      for (const auto& [reg, value] : step.writes) card.write((channel == 0 ? 262 : 270) + reg, value);
      EXPECT_EQ(passes(channel, step.pid), step.passes) << channel << ": " << step.name;
    }
  }
  EXPECT_TRUE(card.fpga.output(0).insertPsi(card.now, packet({.pid = 0x1234})));
  card.fpga.output(0).advance(card.now += kSecond);
  EXPECT_EQ(card.fpga.output(0).counts().psi, 1U) << "tables always pass";
  card.load();
  EXPECT_TRUE(passes(0, 0x1234)) << "after a new configuration";
}

TEST(Output, TellsOfLostInputsInItsBit) {
  Card card;
  card.load();
  EXPECT_EQ(card.read(kTsLock), 0);
  card.fpga.onInputLost([](std::size_t channel, Nanos now) { return channel == 1 && now > kSecond; });
  EXPECT_EQ(card.read(kTsLock), 0);
  card.now += kSecond;
  EXPECT_EQ(card.read(kTsLock), 2);
}

}  // namespace
}  // namespace test
