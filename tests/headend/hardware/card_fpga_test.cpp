// A card's FPGA with its configuration port, on the bus: loaded, written to and uploaded to by a driver that
// can make mistakes.
#include <gtest/gtest.h>

#include <array>

#include "headend/hardware/bus.h"
#include "tests/headend/packets.h"

namespace test {
namespace {

using Counts = std::map<std::string, u64>;

enum Port : u32 { kRequest = 0, kClock = 2, kData = 4, kStatus = 6, kDone = 8, kGuard = 10 };
enum Window : u32 { kReset = 0, kConstellation = 2, kRateWord = 4, kVersion = 106, kPsiData = 156 };
constexpr std::array<u32, 2> kPsiReady = {158, 174}, kFilter = {262, 270};
constexpr u32 kScratch = 200, kEnd = 278;

constexpr u16 kOpen = 0xC0DE, kStart = 0x3C5A, kRelease = 0xC3A5;

struct Card {
  headend::Violations violations;
  headend::CardFpga fpga;
  headend::FpgaConfiguration& port = fpga.configuration();
  PacketKeeper sink;  // of the first output
  Nanos now = 0;

  explicit Card(bool anyBitstream = true) : fpga({.anyBitstream = anyBitstream, .seed = 1}, violations) {
    fpga.output(0).setSink(&sink);
  }
  void set(u32 offset, u16 value) { port.write(offset, value, now); }
  u16 get(u32 offset) { return port.read(offset, now); }
  void request(u16 guard = kOpen) {
    set(kGuard, guard);
    set(kClock, 0);
    set(kRequest, kStart);
    set(kRequest, kRelease);
    now += 1'000'000;
  }
  void clocks(int count) {
    for (int i = 0; i < count; ++i) set(kClock, 1), set(kClock, 0);
  }
  void clockIn(const Bytes& stream) {
    for (std::size_t i = 0; i < stream.size() * 8; ++i) set(kData, bits(stream, i, 1) != 0), clocks(1);
  }
  void load(const Bytes& stream = {0x55}, int closingClocks = 10) {
    request();
    clockIn(stream);
    clocks(closingClocks);
    set(kGuard, 0);
  }
  u16 read(u32 offset) { return fpga.read(offset, now); }
  void write(u32 offset, u16 value) { fpga.write(offset, value, now); }
  void expectCounted(const char* kind, u64 times) const {
    EXPECT_EQ(violations.counts(), times == 0 ? Counts() : (Counts{{kind, times}}));
  }

  // ---- Uploads ----
  void words(int count, u16 word) {
    for (int i = 0; i < count; ++i) write(kPsiData, word);
  }
  void filler(int count = 16) { words(count, 0xFFFF); }
  void data(std::size_t count, u64 number = 2) {
    const Bytes whole = packet({.number = number});
    for (std::size_t i = 0; i < count; ++i) write(kPsiData, i < 188 ? whole[i] : 0x22);
  }
  void insert(u64 number) { data(188, number), filler(); }
};

TEST(CardFpga, IsOnTheBusWithItsWindowAndItsPortAndNoOtherAnswers) {
  constexpr u32 kFirst = 0x60000000, kLast = 0x60002000, kPorts = 0x300;
  Card card;
  card.load();
  headend::Violations violations;
  headend::Bus bus(violations);
  for (const int slot : {0, 5}) bus.attach(slot, card.fpga);
  const auto window = [&](u32 address) { return static_cast<char*>(bus.hostAddress(address)); };
  const auto board = [&](u32 offset) { return static_cast<char*>(bus.mainBoard()) + offset; };
  bus.write(window(kFirst + kEnd - 2), 0x1234, 0);
  EXPECT_EQ(bus.read(window(kLast + kEnd - 2), 0), 0x1234);
  EXPECT_EQ(bus.peek(board(kPorts + kDone), 0), 1);
  EXPECT_EQ(bus.peek(board(kPorts + 16 * 5 + kDone), 0), 1);
  EXPECT_TRUE(violations.counts().empty());

  int local = 0;
  u64 lost = 0;
  for (void* reg : {window(kFirst + kEnd), window(kLast + kEnd), window(0x60000600), window(0x60000200),
                    board(kPorts + 16), board(kPorts - 2), board(kPorts + 16 * 6), board(0),
                    reinterpret_cast<char*>(&local)}) {
    EXPECT_EQ(bus.peek(reg, 0) & bus.read(reg, 0), 0xFFFF);
    bus.write(reg, 1, 0);
    EXPECT_EQ(violations.counts().at("bus_access_without_device"), lost += 2);
  }
  EXPECT_EQ(std::pair(bus.accesses(0), bus.accesses(5)), std::pair(u64{1}, u64{1}));
  for (const u32 address : {0U, kFirst - 2, 0x60002200U, 0xFFFFFFFFU}) EXPECT_EQ(window(address), nullptr);
}

// ---- Configuration ----

TEST(CardFpga, TakesAWholeStreamAndNoOther) {
  Bytes whole = Bytes(32, 0xFF) + Bytes{'Q', 'A', 'M', 'B', 0, 0, 0, 5} +     // and the payload's length
                Bytes{0x12, 0x34, 0x56, 0x78, 0x9A, 0x4C, 0xA0, 0xF5, 0xAF};  // and a CRC of IEEE 802.3
  const auto accepts = [](const Bytes& stream, int closingClocks = 200) {
    Card card(false);
    card.load(stream, closingClocks);
    EXPECT_TRUE(card.violations.counts().empty());
    return card.get(kDone) != 0;
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

TEST(CardFpga, TakesAnIntegratorsStreamInWholeBytesAndCountsWhatItCannotTake) {
  const std::tuple<const char*, void (*)(Card&), u16, u64> rows[] = {
      {"no bits", [](Card& c) { c.request(), c.clocks(10); }, 0, 0},
      {"24 bits", [](Card& c) { c.request(), c.clockIn(Bytes(3)), c.clocks(10); }, 1, 0},
      {"25 bits", [](Card& c) { c.request(), c.clockIn(Bytes(3)), c.set(kData, 1), c.clocks(11); }, 0, 0},
      {"another guard", [](Card& c) { c.request(0xC0DF), c.clocks(18); }, 0, 18},
      {"closed",
       [](Card& c) { c.request(), c.set(kGuard, 0), c.clocks(8), c.set(kGuard, kOpen), c.clocks(18); }, 1, 8},
      {"not released", [](Card& c) { c.set(kGuard, kOpen), c.set(kRequest, kStart), c.clocks(3); }, 0, 3},
      {"not ready", [](Card& c) { c.request(), c.now -= 1'000'000, c.clocks(3); }, 0, 3},
      {"configured already", [](Card& c) { c.load(), c.set(kGuard, kOpen), c.clocks(8); }, 1, 0},
  };
  for (const auto& [name, drive, done, lost] : rows) {
    SCOPED_TRACE(name);
    Card card;
    drive(card);
    EXPECT_EQ(card.get(kDone), done);
    card.expectCounted("config_data_while_not_ready", lost);
  }
}

TEST(CardFpga, IsBlankBeforeItsConfigurationAndAllZeroAfter) {
  Card card;
  for (const u64 before : {0U, 1U}) {
    for (u32 offset = 0; offset < kEnd; offset += 2) {
      card.write(offset, 0x1234);
      EXPECT_EQ(card.read(offset), 0xFFFF) << offset;
    }
    const u64 left = card.fpga.output(1).counts().total();
    card.fpga.output(1).advance(card.now += kSecond);
    EXPECT_EQ(card.fpga.output(1).counts().total(), left) << "a blank card sends nothing";
    card.set(kRequest, kStart);
    EXPECT_EQ(card.get(kRequest), before == 0 ? 0 : kStart) << "behind a guard, at first closed";
    EXPECT_EQ(card.get(kStatus), 0);

    card.load();
    card.port.loaderLeft();
    card.expectCounted("config_guard_left_open", before);
    EXPECT_EQ(std::tuple(card.get(kRequest), card.get(kStatus)), std::tuple(kRelease, 1));
    for (u32 offset = 0; offset < kEnd; offset += 2) {
      const bool ready = offset == kPsiReady[0] || offset == kPsiReady[1];  // there is room
      EXPECT_EQ(card.read(offset), ready ? 1 : offset == kVersion ? 5 : 0) << offset;
    }
    card.write(kScratch, 0x1234);
    card.set(kGuard, kOpen);
    card.set(kRequest, kStart);
    card.port.loaderLeft();
  }
  EXPECT_EQ(card.fpga.configuration().attempts(), 5U);
}

// ---- Outputs ----

// A register, what is written to it, and what is on the air then: kBd times bits.
TEST(CardFpga, TakesTheModulatorsSettingsWhenBothItsResetsAreReleased) {
  const std::tuple<u32, u16, double> writes[] = {
      {kConstellation, 7, 6875 * 6},   {kReset, 3, 6875 * 8},           {kConstellation, 5, 6875 * 8},
      {kRateWord + 2, 0xCC, 6875 * 8}, {kRateWord + 4, 0xCC, 6875 * 8}, {kRateWord + 6, 0xCC, 6875 * 8},
      {kReset, 3, 6875 * 8},           {kReset, 2, 6875 * 8},           {kReset, 3, 5000 * 6}};
  Card card;
  card.load();
  for (const auto& [reg, value, rate] : writes) {
    card.write(reg, value);
    EXPECT_DOUBLE_EQ(card.fpga.output(1).rate().perSecond() * 204 / 188 / 1000, rate) << reg << ": " << value;
  }
}

// Each row is what a driver writes between two good packets, and how many leave.
TEST(CardFpga, LosesAndCountsAMisframedPacketAndTakesTheNextOne) {
  const std::tuple<const char*, void (*)(Card&), const char*, std::size_t> rows[] = {
      {"a byte short", [](Card& c) { c.data(187), c.filler(); }, "psi_packet_misframed", 2},
      {"no filler", [](Card& c) { c.data(188); }, "psi_packet_misframed", 2},
      {"a filler short", [](Card& c) { c.data(188), c.filler(15); }, "psi_packet_misframed", 2},
      {"a filler too many", [](Card& c) { c.data(188), c.filler(17); }, "psi_packet_misframed", 3},
      {"a byte too many", [](Card& c) { c.data(189), c.filler(); }, "psi_packet_misframed", 2},
      {"high", [](Card& c) { c.data(9), c.words(179, 0x147), c.filler(); }, "psi_packet_misframed", 2},
      {"one after the data", [](Card& c) { c.data(188), c.words(16, 0xFF00); }, "psi_packet_misframed", 2},
      {"erased", [](Card& c) { c.words(188, 0xFF), c.filler(); }, "psi_packet_without_sync", 3},
  };
  for (const auto& [name, bad, counted, left] : rows) {
    SCOPED_TRACE(name);
    Card card;
    card.load();
    card.insert(1), bad(card), card.insert(3);
    card.expectCounted(counted, 1);
    card.fpga.advanceOutputs(kSecond);
    ASSERT_EQ(card.sink.kept.size(), left);
    EXPECT_EQ(numberIn(card.sink.kept.begin()->second), 1U);
    EXPECT_EQ(numberIn(card.sink.kept.rbegin()->second), 3U);
  }
}

TEST(CardFpga, TellsOfRoomAndLosesWhatIsWrittenToAFullFifo) {
  Card card;
  card.load();
  for (int number = 0; number < 10; ++number) {
    EXPECT_EQ(card.read(kPsiReady[0]), number < 8 ? 1 : 0);
    card.insert(1);
  }
  card.expectCounted("psi_fifo_overflow", 2);
}

// What is written, and whether the PID 0x1234 passes then. Bits beyond those of a register do not count.
TEST(CardFpga, TakesAFilterAtTheRiseOfItsStrobe) {
  constexpr u32 kPass = 0, kStrobe = 2, kLow = 4, kHigh = 6;
  const std::tuple<u32, u16, bool> writes[] = {
      {kLow, 0x1234, true}, {kHigh, 0xFFF2, true},    {kPass, 0xFFFE, true},    {kStrobe, 1, false},
      {kPass, 1, false},    {kStrobe, 0xFFFF, false}, {kStrobe, 0xFFFE, false}, {kStrobe, 1, true},
      {kPass, 0, true},     {kStrobe, 0, true},       {kLow, 0x35, true},       {kStrobe, 1, true},
      {kLow, 0x34, true},   {kStrobe, 0, true},       {kStrobe, 1, false}};
  const Bytes any = packet({});
  Card card;
  for (const std::size_t channel : {0U, 1U, 0U}) {
    card.load();  // without a filter
    headend::Multiplexer& output = card.fpga.output(channel);
    for (const auto& [reg, value, passes] : writes) {
      card.write(kFilter[channel] + reg, value);
      const u64 before = output.counts().filtered;
      output.offer(card.now, mpeg::PacketView(any.data(), 188), 0x1234);
      EXPECT_EQ(output.counts().filtered == before, passes) << channel << ": " << reg << ", " << value;
    }
  }
}

}  // namespace
}  // namespace test
