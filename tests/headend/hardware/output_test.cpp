#include <gtest/gtest.h>

#include <random>

#include "headend/hardware/packet_sink.h"
#include "tests/headend/hardware/loaded_card.h"
#include "tests/headend/scratch.h"

namespace test {
namespace {

__extension__ using Wide = __int128;
constexpr Nanos kSecond = 1'000'000'000;

// Keeps the second byte of each packet of the output, so that a test sees what left and in which order.
class Memory final : public headend::PacketSink {
 public:
  void packet(std::span<const u8> packet) override { seen += static_cast<char>(packet[1]); }
  void nullPackets(std::uint64_t count) override { seen.append(count, '-'); }
  void flush() override {}
  const std::string& error() const override { return none; }
  std::string seen;
  std::string none;
};

Bytes packetOf(u8 mark) {
  Bytes packet(188, 0x11);
  packet[0] = 0x47;
  packet[1] = mark;
  return packet;
}

void words(Card& card, std::size_t count, u16 word, u32 port = 156) {
  for (std::size_t i = 0; i < count; ++i) card.write(port, word);
}
void insert(Card& card, u8 mark, u32 port = 156) {
  for (const u8 byte : packetOf(mark)) card.write(port, byte);
  words(card, 16, 0xFFFF, port);
}

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
    for (const auto& [code, bits] : {std::pair<u16, unsigned>{5, 6U}, {6, 7U}, {7, 8U}}) {
      SCOPED_TRACE(testing::Message() << rate << " kBd, code " << code);
      Card card;
      card.load();
      program(card, rate, code);
      headend::Multiplexer& lazy = card.fpga.output(0);
      headend::Multiplexer& eager = card.fpga.output(1);
      EXPECT_DOUBLE_EQ(lazy.rate().perSecond(), rate * 1000.0 * bits * 188 / 204);
      const headend::BitRate programmed = lazy.rate();
      lazy.start(card.now, programmed);
      eager.start(card.now, programmed);
      const std::uint64_t before = lazy.counts().null;
      const std::uint64_t eagerBefore = eager.counts().null;
      std::mt19937 steps(rate);
      for (Nanos t = 0; t < 2 * kSecond; t += static_cast<Nanos>(steps() % 700'000)) {
        eager.advance(card.now + t);
        ASSERT_EQ(eager.counts().null - eagerBefore, leftBy(t, rate, bits)) << t;
      }
      for (const Nanos t : {Nanos{0}, Nanos{1}, kSecond - 1, kSecond, 86'400 * kSecond + 12'345}) {
        lazy.advance(card.now + t);
        ASSERT_EQ(lazy.counts().null - before, leftBy(t, rate, bits)) << t;
      }
    }
  }
}

TEST(Output, TablesGoBeforeStuffingInTheirOrderHoweverOftenItIsLookedAt) {
  std::string streams[2];
  for (const bool eager : {false, true}) {
    Card card;
    card.load();
    Memory sinks[2];
    for (const std::size_t channel : {0U, 1U}) card.fpga.output(channel).setSink(&sinks[channel]);
    std::mt19937 random(5);
    const Nanos start = card.now;
    for (int i = 0; i < 2000; ++i) {
      const Nanos until = card.now + static_cast<Nanos>(random() % 400'000);
      const bool second = random() % 4 == 0;
      if (eager) {
        for (; card.now < until; card.now += 3'001) card.fpga.advanceOutputs(card.now);
      }
      card.now = until;
      if (!second) insert(card, static_cast<u8>('A' + i % 26));
      if (second) insert(card, static_cast<u8>('a' + i % 26), 172);
    }
    card.fpga.advanceOutputs(card.now);
    EXPECT_EQ(sinks[0].seen.size(), leftBy(card.now - start, 6875, 6));
    EXPECT_EQ(card.fpga.output(0).counts().psi + card.fpga.output(0).counts().null, sinks[0].seen.size());
    EXPECT_EQ(sinks[0].seen.find_first_of("abcdefghijklmnopqrstuvwxyz"), std::string::npos);
    EXPECT_EQ(card.count("psi_fifo_overflow"), 0U);
    streams[eager ? 1 : 0] = sinks[0].seen + sinks[1].seen;
  }
  EXPECT_EQ(streams[0], streams[1]);
}

TEST(Output, TheReadyRegisterTellsOfRoomAndAFullFifoLosesThePacket) {
  Card card;
  card.load();
  Memory sink;
  card.fpga.output(0).setSink(&sink);
  int taken = 0;
  while (card.read(158) != 0 && taken < 100) insert(card, static_cast<u8>('A' + taken++));
  ASSERT_GE(taken, 1);
  ASSERT_LT(taken, 32);
  EXPECT_EQ(card.read(174), 1);  // the other channel's own
  insert(card, '!');
  EXPECT_EQ(card.count("psi_fifo_overflow"), 1U);
  const Nanos period = 1632 * 1'000'000 / (6875 * 6);
  card.now += period + 1;
  EXPECT_EQ(card.read(158), 1);
  insert(card, 'z');
  EXPECT_EQ(card.read(158), 0);
  card.now += 100 * period;
  card.fpga.advanceOutputs(card.now);
  std::string expected;
  for (int i = 0; i < taken; ++i) expected += static_cast<char>('A' + i);
  EXPECT_NE(sink.seen.find(expected + "z-"), std::string::npos) << sink.seen;
  EXPECT_EQ(sink.seen.find('!'), std::string::npos);
}

// Each row is what a driver writes between two good packets.
TEST(PsiPort, LosesAndCountsAMisframedPacketAndTakesTheNextOne) {
  const auto data = [](Card& card, std::size_t from, std::size_t count) {
    for (std::size_t i = from; i < from + count; ++i) card.write(156, i < 188 ? packetOf('x')[i] : 0x22);
  };
  struct Row {
    const char* name;
    std::function<void(Card&)> bad;
    std::uint64_t misframed;
    std::uint64_t withoutSync;
    const char* out;
  };
  const Row rows[] = {
      {"good", [&](Card& c) { data(c, 0, 188), words(c, 16, 0xFFFF); }, 0, 0, "AxB"},
      {"a byte short", [&](Card& c) { data(c, 0, 187), words(c, 16, 0xFFFF); }, 1, 0, "AB"},
      {"only a byte", [&](Card& c) { data(c, 0, 1), words(c, 16, 0xFFFF); }, 1, 0, "AB"},
      {"no filler", [&](Card& c) { data(c, 0, 188); }, 1, 0, "AB"},
      {"a filler short", [&](Card& c) { data(c, 0, 188), words(c, 15, 0xFFFF); }, 1, 0, "AB"},
      {"a filler too many", [&](Card& c) { data(c, 0, 188), words(c, 17, 0xFFFF); }, 1, 0, "AxB"},
      {"filler alone", [&](Card& c) { words(c, 16, 0xFFFF); }, 1, 0, "AB"},
      {"a byte too many", [&](Card& c) { data(c, 0, 189), words(c, 16, 0xFFFF); }, 1, 0, "AB"},
      {"a high byte in the data",
       [&](Card& c) { data(c, 0, 100), words(c, 1, 0x0147), data(c, 101, 87), words(c, 16, 0xFFFF); }, 1, 0,
       "AB"},
      {"a high byte in the first word",
       [&](Card& c) { words(c, 1, 0xFF47), data(c, 1, 187), words(c, 16, 0xFFFF); }, 1, 0, "AB"},
      {"another word as filler", [&](Card& c) { data(c, 0, 188), words(c, 16, 0xFF00); }, 1, 0, "AB"},
      {"erased", [&](Card& c) { words(c, 188, 0xFF), words(c, 16, 0xFFFF); }, 0, 1,
       "A\xFF"
       "B"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Card card;
    card.load();
    Memory sink;
    card.fpga.output(0).setSink(&sink);
    card.fpga.advanceOutputs(card.now);
    sink.seen.clear();
    insert(card, 'A');
    row.bad(card);
    insert(card, 'B');
    card.fpga.advanceOutputs(card.now += kSecond);
    EXPECT_EQ(sink.seen.substr(0, sink.seen.find('-')), row.out);
    EXPECT_EQ(card.count("psi_packet_misframed"), row.misframed);
    EXPECT_EQ(card.count("psi_packet_without_sync"), row.withoutSync);
  }
}

}  // namespace
}  // namespace test
