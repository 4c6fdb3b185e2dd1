#include <gtest/gtest.h>

#include <cstring>
#include <deque>
#include <map>
#include <random>
#include <set>

#include "headend/hardware/bus.h"
#include "headend/hardware/pid_router.h"
#include "tests/headend/hardware/loaded_card.h"

namespace test {
namespace {

using headend::Multiplexer;
using headend::PidRouter;
using Words = PidRouter::Words;
__extension__ using Wide = __int128;
constexpr Nanos kSecond = 1'000'000'000;
constexpr Nanos kMs = 1'000'000;

Bytes packetOf(unsigned pid, unsigned mark) {
  Bytes packet(188, 0);
  packet[0] = 0x47;
  packet[1] = static_cast<u8>(pid >> 8 & 0x1F);
  packet[2] = static_cast<u8>(pid);
  packet[3] = 0x10;
  std::memcpy(packet.data() + 184, &mark, sizeof mark);
  return packet;
}

// Knows of a packet what a test has put in; more may come at any time.
class FakeInput final : public headend::TsInput {
 public:
  void put(Nanos arrival, Bytes packet) { coming.emplace_back(arrival, std::move(packet)); }
  Nanos nextArrival() const override { return coming.empty() ? headend::kNever : coming.front().first; }
  headend::TsPacketView take() override {
    taken = std::move(coming.front().second);
    coming.pop_front();
    return headend::TsPacketView(taken.data(), 188);
  }
  const std::string& name() const override { return noName; }
  std::deque<std::pair<Nanos, Bytes>> coming;
  Bytes taken;
  std::string noName;
};

// What left an output: its place in the stream, PID, mark, and the packet.
struct Left {
  std::uint64_t place;
  unsigned pid;
  unsigned mark;
  Bytes packet = {};
  bool operator==(const Left& o) const { return place == o.place && pid == o.pid && mark == o.mark; }
};
void PrintTo(const Left& left, std::ostream* out) {
  *out << left.place << ": PID " << left.pid << " #" << left.mark;
}
class Recorder final : public headend::PacketSink {
 public:
  void packet(std::span<const u8> p) override {
    Left left{.place = places++, .pid = (p[1] & 0x1FU) << 8 | p[2], .mark = 0, .packet{p.begin(), p.end()}};
    std::memcpy(&left.mark, p.data() + 184, sizeof left.mark);
    seen.push_back(std::move(left));
  }
  void nullPackets(std::uint64_t count) override { places += count; }
  void flush() override {}
  const std::string& error() const override { return none; }
  std::vector<Left> seen;
  std::uint64_t places = 0;
  std::string none;
};

Words word(unsigned slot, unsigned port, unsigned pid, unsigned to) {
  const std::uint64_t bits = pid | port << 13 | slot << 17 | 1U << 21 | std::uint64_t{to} << 22;
  return {static_cast<u16>(bits), static_cast<u16>(bits >> 16), static_cast<u16>(bits >> 32)};
}

// An output on which a packet takes 1632 * 10^6 / 700 ns, so that its buffer takes 42.
constexpr unsigned kBitsAMs = 700;
constexpr std::size_t kRoom = 42;
struct Output {
  Multiplexer multiplexer;
  Recorder recorder;
  Output() {
    multiplexer.setSink(&recorder);
    multiplexer.start(0, headend::BitRate::ofModulation(kBitsAMs / 7, 7));
  }
};
// The place that is on the air at `t`, or the one after it.
std::uint64_t placeFrom(Nanos t) {
  return static_cast<std::uint64_t>((Wide{t} * kBitsAMs + 1'631'999'999) / 1'632'000'000);
}

struct House {
  std::array<FakeInput, 3> inputs;  // at the slots and ports of kInputs
  std::array<Output, 2> outputs;    // of slot 3
  PidRouter router;
  static constexpr std::array<std::pair<unsigned, unsigned>, 3> kInputs = {{{0, 1}, {5, 0}, {5, 15}}};
  House() {
    for (int i = 0; i < 3; ++i) {
      const auto& [slot, port] = kInputs[static_cast<std::size_t>(i)];
      router.connectInput(static_cast<int>(slot), static_cast<int>(port),
                          inputs[static_cast<std::size_t>(i)]);
    }
    for (int port = 0; port < 2; ++port)
      router.connectOutput(3, port, outputs[static_cast<std::size_t>(port)].multiplexer);
  }
};

TEST(PidRouter, GoesByTheWordsOfItsMap) {
  struct Row {
    const char* name;
    Words words;
    int slot, port;
    unsigned pid;
    int out;  // -1: goes nowhere
  };
  const Row rows[] = {
      {"source PID", {0x1FFE, 0x0020, 0}, 0, 0, 0x1FFE, 0},
      {"port, across the words", {0xE100, 0x0021, 0}, 0, 15, 0x100, 0},
      {"high part of the new PID", {0x0100, 0x0020, 7}, 0, 0, 0x100, 0x1C00},
      {"more than 35 bits", {0x0100, 0x0060, 0xFFF8}, 0, 0, 0x100, 1},
      {"unused position", {0xFFFF, 0x001F, 0}, 5, 15, 0x1FFF, -1},
      {"another port", {0x2100, 0x0020, 0}, 0, 0, 0x100, -1},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FakeInput input;
    Output output;
    PidRouter router;
    router.connectOutput(2, 1, output.multiplexer);
    EXPECT_EQ(router.position(2, 1, 255), (Words{0xFFFF, 0x001F, 0}));
    router.set(0, 2, 1, 255, row.words);
    router.connectInput(row.slot, row.port, input);  // after the map: a card that starts late
    input.put(10, packetOf(row.pid, 'x'));
    output.multiplexer.advance(kSecond);
    std::vector<int> pids;
    for (const Left& left : output.recorder.seen) pids.push_back(static_cast<int>(left.pid));
    EXPECT_EQ(pids, row.out < 0 ? std::vector<int>{} : std::vector{row.out});
    EXPECT_EQ(router.position(2, 1, 255), (Words{row.words[0], row.words[1], u16(row.words[2] & 7)}));
  }
}

TEST(PidRouter, CountsWhatInputsDeliverAndTellsOfThoseThatAreLost) {
  House h;
  unsigned shown = 0;
  h.router.onPacket(5, 0, [&](headend::TsPacketView) { ++shown; });
  EXPECT_FALSE(h.router.inputLost(3, 0, 9 * kSecond)) << "an empty map";
  h.router.set(10 * kSecond, 3, 0, 0, word(5, 0, 0x100, 0x100));
  EXPECT_TRUE(h.router.inputLost(3, 0, 10 * kSecond));
  Bytes packet = packetOf(0x100, 'a');
  h.inputs[1].put(11 * kSecond, packet);
  packet[1] |= 0x80;  // transport error
  packet[184] = 'b';
  h.inputs[1].put(12 * kSecond, packet);
  packet[0] = 0x46;
  packet[1] = 1;
  h.inputs[1].put(13 * kSecond, packet);
  std::string tapped;
  h.outputs[0].multiplexer.setTap([&](headend::TsPacketView p) { tapped += static_cast<char>(p[184]); });
  h.outputs[0].multiplexer.advance(14 * kSecond);
  EXPECT_EQ(tapped, "ab");
  EXPECT_EQ(h.outputs[0].recorder.seen[1].packet[1], 0x81);
  const PidRouter::InputCounts& counts = *h.router.input(5, 0);
  EXPECT_EQ(counts.packets, 2U);
  EXPECT_EQ(counts.damaged, 2U);
  EXPECT_EQ(counts.last, 12 * kSecond);
  EXPECT_EQ(shown, 2U);
  EXPECT_EQ(h.router.input(4, 0), nullptr);

  h.inputs[1].put(20 * kSecond, packetOf(0x999, 'c'));  // any packet will do
  EXPECT_FALSE(h.router.inputLost(3, 0, 20 * kSecond + 500 * kMs - 1));
  EXPECT_TRUE(h.router.inputLost(3, 0, 20 * kSecond + 500 * kMs));
  EXPECT_FALSE(h.router.inputLost(3, 1, 20 * kSecond + 500 * kMs)) << "the other output's map";
  h.inputs[1].put(21 * kSecond, packetOf(0x999, 'd'));
  h.router.set(21 * kSecond, 3, 0, 1, word(15, 0, 0x100, 0x101));
  EXPECT_TRUE(h.router.inputLost(3, 0, 21 * kSecond)) << "a slot that there is not";
  h.router.set(21 * kSecond, 3, 0, 1, PidRouter::kUnused);
  EXPECT_FALSE(h.router.inputLost(3, 0, 21 * kSecond));
}

TEST(Output, DropsWhatExceedsItsBufferAndTheMainBoardTellsForTwoSeconds) {
  House h;
  headend::Violations violations;
  headend::Bus bus(violations);
  headend::MainBoard board;
  bus.attach(board);
  for (int port = 0; port < 2; ++port) {
    board.watch(3, port, h.outputs[static_cast<std::size_t>(port)].multiplexer);
  }
  h.router.set(0, 3, 1, 0, word(0, 1, 0x100, 0x100));
  const Nanos burst = 62 * 16'320'000;  // exactly when a packet leaves
  for (unsigned i = 0; i < 50; ++i) h.inputs[0].put(burst, packetOf(0x100, i));
  const void* reg = static_cast<const char*>(bus.mainBoard()) + 376;
  const std::pair<Nanos, u16> reads[] = {
      {burst - 1, 0}, {burst, 0x80}, {burst + 2 * kSecond - 1, 0x80}, {burst + 2 * kSecond, 0}};
  for (const auto& [t, bits] : reads) EXPECT_EQ(bus.read(reg, t), bits) << t;
  EXPECT_TRUE(violations.counts().empty());
  const Multiplexer::Counts& counts = h.outputs[1].multiplexer.counts();
  EXPECT_EQ(h.outputs[1].recorder.seen.front(), (Left{placeFrom(burst), 0x100, 0}));
  // At half the rate the same time is half the packets, and those in excess go; none waits over a stop.
  Multiplexer& output = h.outputs[1].multiplexer;
  for (unsigned i = 0; i < 40; ++i) h.inputs[0].put(5 * kSecond, packetOf(0x100, i));
  output.setRate(5 * kSecond, {.numerator = output.rate().numerator / 2, .denominator = 204});
  EXPECT_EQ(output.buffered(), kRoom / 2);
  EXPECT_EQ(bus.read(reg, 5 * kSecond), 0x80);
  const std::uint64_t dropped = counts.dropped;
  output.stop(5 * kSecond);
  EXPECT_EQ(output.buffered(), 0U);
  h.inputs[0].put(6 * kSecond, packetOf(0x100, 1));
  output.start(7 * kSecond, output.rate());
  output.advance(8 * kSecond);
  EXPECT_EQ(counts.routed, kRoom);
  EXPECT_EQ(counts.dropped, dropped);
}

TEST(Output, RestampsAPcrForItsTimeInTheBufferToTheTick) {
  for (const auto& [code, bits] : {std::pair<u16, unsigned>{5, 6U}, {6, 7U}, {7, 8U}}) {
    SCOPED_TRACE(code);
    const std::uint64_t bitsAMs = std::uint64_t{6875} * bits;
    Output output;
    Multiplexer& mux = output.multiplexer;
    FakeInput input;
    PidRouter router;
    router.connectInput(5, 0, input);
    router.connectOutput(0, 0, mux);
    router.set(0, 0, 0, 0, word(5, 0, 0x100, 0x200));
    const Nanos start = 123'456'789;
    mux.start(start, headend::BitRate::ofModulation(6875, bits));
    const std::uint64_t first = output.recorder.places;
    std::mt19937 random(code);
    const auto below = [&](unsigned n) { return static_cast<Nanos>(random() % n); };
    constexpr std::uint64_t kCycle = (std::uint64_t{1} << 33) * 300;
    std::vector<std::pair<Nanos, std::uint64_t>> in;
    Nanos t = start;
    for (unsigned i = 0; i < 3000; ++i) {
      t += below(50) == 0 ? below(9'000'000) : below(30'000);
      const std::uint64_t pcr = (kCycle - 27'000'000 + static_cast<std::uint64_t>(t) * 27 / 1000) % kCycle;
      Bytes packet = packetOf(0x100, i);
      packet[3] = 0x30;
      packet[4] = 7;
      packet[5] = 0x10;
      const std::uint64_t field = (pcr / 300) << 15 | 0x7E00 | pcr % 300;
      for (unsigned b = 0; b < 6; ++b) packet[6 + b] = static_cast<u8>(field >> (40 - 8 * b));
      in.emplace_back(t, pcr);
      input.put(t, packet);
    }
    mux.advance(t + kSecond);
    ASSERT_EQ(output.recorder.seen.size(), in.size());
    for (const Left& left : output.recorder.seen) {
      const auto& [arrival, pcr] = in[left.mark];
      // Both as so many thousandths of a tick of a packet's share, from the start on.
      const Wide waits = Wide{left.place - first} * 1632 * 1'000'000 - Wide{arrival - start} * bitsAMs;
      ASSERT_GE(waits, 0);
      const auto ticks = static_cast<std::uint64_t>((waits * 27 * 2 + 1000 * bitsAMs) / (2000 * bitsAMs));
      std::uint64_t field = 0;
      for (unsigned b = 0; b < 6; ++b) field = field << 8 | left.packet[6 + b];
      ASSERT_EQ(((field >> 15) * 300 + (field & 0x1FF)) % kCycle, (pcr + ticks) % kCycle) << left.mark;
    }
  }
}

TEST(CardFpga, TakesAFilterAtTheRiseOfItsStrobeAndTellsOfLostInputs) {
  Card card;
  card.load();
  const auto passes = [&](std::size_t channel, u16 pid) {
    Multiplexer& mux = card.fpga.output(channel);
    const std::uint64_t before = mux.counts().filtered;
    const Bytes packet = packetOf(0, 0);
    mux.offer(card.now, headend::TsPacketView(packet.data(), 188), pid);
    return mux.counts().filtered == before;
  };
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
  for (const std::size_t channel : {0U, 1U}) {
    for (u16 each = 0; each < 0x2000; each = u16(each + 0x111)) EXPECT_TRUE(passes(channel, each)) << each;
    for (const Step& step : steps) {
      for (const auto& [reg, value] : step.writes) card.write((channel == 0 ? 262 : 270) + reg, value);
      EXPECT_EQ(passes(channel, step.pid), step.passes) << channel << ": " << step.name;
    }
  }
  EXPECT_TRUE(card.fpga.output(0).insertPsi(card.now, packetOf(0x1234, 0)));
  card.fpga.output(0).advance(card.now += kSecond);
  EXPECT_EQ(card.fpga.output(0).counts().psi, 1U);
  EXPECT_EQ(card.read(110), 0);
  card.fpga.onInputLost([](std::size_t channel, Nanos now) { return channel == 1 && now > kSecond; });
  EXPECT_EQ(card.read(110), 2);
  card.load();
  EXPECT_TRUE(passes(0, 0x1234)) << "after a new configuration";
}

// The plainest possible router and outputs: one event at a time, and everything searched for.
struct Naive {
  std::array<std::array<Words, 256>, 2> maps;
  std::array<std::array<bool, 0x2000>, 2> blocked{};
  std::array<std::deque<Left>, 2> psi, buffer;
  std::array<std::vector<Left>, 2> out;
  std::array<std::uint64_t, 2> place{}, dropped{}, filtered{};
  Naive() {
    for (auto& map : maps) map.fill(PidRouter::kUnused);
  }
  void leave(std::size_t o, std::uint64_t until) {
    for (; place[o] < until; ++place[o]) {
      std::deque<Left>& from = psi[o].empty() ? buffer[o] : psi[o];
      if (from.empty()) continue;
      out[o].push_back({place[o], from.front().pid, from.front().mark});
      from.pop_front();
    }
  }
  std::size_t shadowed(std::size_t o) const {
    std::size_t used = 0;
    std::set<unsigned> sources;
    for (const Words& w : maps[o]) {
      if ((w[1] & 0x20) != 0) ++used, sources.insert((w[1] & 0x1FU) << 16 | w[0]);
    }
    return used - sources.size();
  }
  void packet(Nanos t, unsigned slot, unsigned port, unsigned pid, unsigned mark) {
    for (const std::size_t o : {0U, 1U}) {
      leave(o, placeFrom(t));
      for (const Words& w : maps[o]) {
        if ((w[1] & 0x20) == 0 || (w[0] & 0x1FFF) != pid) continue;
        if ((w[0] >> 13 | (w[1] & 1) << 3) != static_cast<int>(port) || (w[1] >> 1 & 15U) != slot) continue;
        const unsigned to = (w[1] >> 6 & 0x3FFU) | (w[2] & 7U) << 10;
        if (blocked[o][to]) {
          ++filtered[o];
        } else if (buffer[o].size() == kRoom) {
          ++dropped[o];
        } else {
          buffer[o].push_back({0, to, mark});
        }
        break;
      }
    }
  }
};

TEST(PidRouter, DoesAsTheNaiveModelInAnyHistory) {
  std::uint64_t drops = 0;
  std::uint64_t filtered = 0;
  for (unsigned seed = 0; seed < 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    House h;
    Naive naive;
    unsigned mark = 0;
    Nanos now = 0;
    for (int step = 0; step < 1500; ++step) {
      const Nanos until = now + below(8'000'000);
      std::multimap<std::pair<Nanos, unsigned>, unsigned> coming;  // arrival, input and PID; some at one time
      for (unsigned n = until - now < 2000 ? 0 : below(8); n > 0; --n) {
        const Nanos after = below(static_cast<unsigned>(until - now) / 1000) * 1000;
        coming.insert({{now + 1 + after, below(3)}, 0x1FF0 + below(5)});
      }
      for (const auto& [when, pid] : coming) {
        const auto& [slot, port] = House::kInputs[when.second];
        h.inputs[when.second].put(when.first, packetOf(pid, mark));
        naive.packet(when.first, slot, port, pid, mark++);
      }
      now = until;
      const std::size_t o = below(2);
      Multiplexer& mux = h.outputs[o].multiplexer;
      const unsigned action = below(6);  // the highest: nobody looks
      if (action == 0) {
        const auto& [slot, port] = House::kInputs[below(3)];
        Words words = word(slot, port, 0x1FF0 + below(5), 0x400 + below(6));
        if (below(3) == 0) words[1] &= 0xFFDF;  // not in use
        const auto index = static_cast<u16>(below(2) * 240 + below(12));
        naive.maps[o][index] = words;
        h.router.set(now, 3, static_cast<int>(o), index, words);
      } else if (action == 1) {
        const auto pid = static_cast<u16>(0x400 + below(6));
        const bool pass = below(3) != 0;
        naive.blocked[o][pid] = !pass;
        mux.setPass(now, pid, pass);
      } else if (action == 2) {
        naive.leave(o, placeFrom(now + 1));
        const bool room = naive.psi[o].size() < Multiplexer::kPsiFifo;
        if (room) naive.psi[o].push_back({0, 0x10, mark});
        ASSERT_EQ(mux.insertPsi(now, packetOf(0x10, mark++)), room);
      } else if (action == 3) {
        mux.advance(now);
      }
    }
    for (const std::size_t o : {0U, 1U}) {
      naive.leave(o, placeFrom(now + 1));
      h.outputs[o].multiplexer.advance(now);
      ASSERT_EQ(h.outputs[o].recorder.seen, naive.out[o]);
      const Multiplexer::Counts& counts = h.outputs[o].multiplexer.counts();
      EXPECT_EQ(counts.total(), naive.place[o]);
      EXPECT_EQ(counts.dropped, naive.dropped[o]);
      EXPECT_EQ(counts.filtered, naive.filtered[o]);
      EXPECT_EQ(h.router.shadowed(3, static_cast<int>(o)), naive.shadowed(o));
      EXPECT_EQ(counts.offered,
                counts.routed + counts.dropped + counts.filtered + h.outputs[o].multiplexer.buffered());
      drops += counts.dropped;
      filtered += counts.filtered;
    }
  }
  EXPECT_GT(drops, 100U);
  EXPECT_GT(filtered, 100U);
}

}  // namespace
}  // namespace test
