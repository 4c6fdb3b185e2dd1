#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <random>
#include <set>

#include "headend/hardware/bus.h"
#include "headend/hardware/pid_router.h"
#include "tests/headend/hardware/loaded_card.h"
#include "tests/headend/packets.h"

namespace test {
namespace {

using headend::Multiplexer;
using headend::PidRouter;
using Left = PacketKeeper::Left;
using Words = PidRouter::Words;
__extension__ using Wide = __int128;
constexpr Nanos kSecond = 1'000'000'000;

// Knows of a packet what a test has put in; more may come at any time.
class FakeInput final : public headend::TsInput {
 public:
  void put(Nanos arrival, Bytes packet) { coming_.emplace_back(arrival, std::move(packet)); }
  Nanos nextArrival() const override { return coming_.empty() ? headend::kNever : coming_.front().first; }
  headend::TsPacketView take() override {
    taken_ = std::move(coming_.front().second);
    coming_.pop_front();
    return headend::TsPacketView(taken_.data(), 188);
  }
  const std::string& name() const override { return name_; }

 private:
  std::deque<std::pair<Nanos, Bytes>> coming_;
  Bytes taken_;
  std::string name_;
};

Words word(unsigned slot, unsigned port, unsigned pid, unsigned to) {
  const std::uint64_t bits = pid | port << 13 | slot << 17 | 1U << 21 | std::uint64_t{to} << 22;
  return {static_cast<u16>(bits), static_cast<u16>(bits >> 16), static_cast<u16>(bits >> 32)};
}

// Outputs on which a packet takes 1632 * 10^6 / 700 ns, so that their buffers take 42.
constexpr unsigned kBitsAMs = 700;
constexpr std::size_t kRoom = 42;
// The place that is on the air at `t`, or the one after it.
std::uint64_t placeFrom(Nanos t) {
  return static_cast<std::uint64_t>((Wide{t} * kBitsAMs + 1'631'999'999) / 1'632'000'000);
}

// The PCR of a packet that arrives at `t`, which wraps after five seconds; and when it has left at a place:
// later by its time in the buffer, to the nearest tick.
u64 pcrFor(Nanos t) {
  return (kPcrWrap - 5 * 27'000'000 + static_cast<u64>(t) * 27 / 1000) % kPcrWrap;
}
u64 pcrFor(Nanos arrival, u64 place) {
  const Wide waits = Wide{place} * 1'632'000'000 - Wide{arrival} * kBitsAMs;  // in ns * kBitsAMs
  return (pcrFor(arrival) + static_cast<u64>((waits * 27 * 2 + 1000 * kBitsAMs) / (2000 * kBitsAMs))) %
         kPcrWrap;
}

// Three inputs and the two outputs of slot 3.
struct House {
  static constexpr std::array<std::pair<int, int>, 3> kInputs = {{{0, 1}, {5, 0}, {5, 15}}};
  std::array<FakeInput, 3> inputs;
  std::array<Multiplexer, 2> outputs;
  std::array<PacketKeeper, 2> kept;
  PidRouter router;

  House() {
    for (std::size_t i = 0; i < 3; ++i) router.connectInput(kInputs[i].first, kInputs[i].second, inputs[i]);
    for (const std::size_t o : {0U, 1U}) {
      outputs[o].setSink(&kept[o]);
      outputs[o].start(0, headend::BitRate::ofModulation(kBitsAMs / 7, 7));
      router.connectOutput(3, static_cast<int>(o), outputs[o]);
    }
  }
};

TEST(Router, GoesByTheWordsOfItsMap) {
  struct Row {
    const char* name;
    Words words;
    int slot, port;
    unsigned pid;
    std::vector<u64> out;  // PIDs
  };
  const Row rows[] = {
      {"source PID", {0x1FFE, 0x0020, 0}, 0, 0, 0x1FFE, {0}},
      {"port, across the words", {0xE100, 0x0021, 0}, 0, 15, 0x100, {0}},
      {"high part of the new PID", {0x0100, 0x0020, 7}, 0, 0, 0x100, {0x1C00}},
      {"more than 35 bits", {0x0100, 0x0060, 0xFFF8}, 0, 0, 0x100, {1}},
      {"unused position", {0xFFFF, 0x001F, 0}, 5, 15, 0x1FFF, {}},
      {"another port", {0x2100, 0x0020, 0}, 0, 0, 0x100, {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FakeInput input;
    House h;
    EXPECT_EQ(h.router.position(3, 1, 255), (Words{0xFFFF, 0x001F, 0}));
    h.router.set(0, 3, 1, 255, row.words);
    h.router.connectInput(row.slot, row.port, input);  // after the map: a card that starts late
    input.put(10, packet({.pid = row.pid}));
    h.outputs[1].advance(kSecond);
    std::vector<u64> pids;
    for (const Left& left : h.kept[1].seen) pids.push_back(left.pid);
    EXPECT_EQ(pids, row.out);
    EXPECT_EQ(h.router.position(3, 1, 255), (Words{row.words[0], row.words[1], u16(row.words[2] & 7)}));
  }
}

TEST(Router, CountsWhatInputsDeliver) {
  House h;
  unsigned observed = 0, tapped = 0;
  h.router.onPacket(5, 0, [&](headend::TsPacketView) { ++observed; });
  h.outputs[0].setTap([&](headend::TsPacketView) { ++tapped; });
  h.router.set(0, 3, 0, 0, word(5, 0, 0x100, 0x100));
  Bytes damaged = packet({.number = 2});
  damaged[1] |= 0x80;  // transport error
  Bytes unsynchronised = packet({.number = 3});
  unsynchronised[0] = 0x46;
  h.inputs[1].put(1, packet({.number = 1}));
  h.inputs[1].put(2, damaged);
  h.inputs[1].put(3, unsynchronised);
  h.outputs[0].advance(kSecond);
  ASSERT_EQ(h.kept[0].whole.size(), 2U);
  EXPECT_EQ(h.kept[0].whole[1], damaged);
  const PidRouter::InputCounts& counts = *h.router.input(5, 0);
  EXPECT_EQ(std::tuple(counts.packets, counts.damaged, counts.last), std::tuple(2U, 2U, 2));
  EXPECT_EQ(std::tuple(observed, tapped), std::tuple(2U, 2U));
  EXPECT_EQ(h.router.input(4, 0), nullptr);
}

TEST(Router, TellsOfInputsThatAnOutputNamesAndThatBringNothingForHalfASecond) {
  House h;
  EXPECT_FALSE(h.router.inputLost(3, 0, 9 * kSecond)) << "an empty map";
  h.router.set(10 * kSecond, 3, 0, 0, word(5, 0, 0x100, 0x100));
  EXPECT_TRUE(h.router.inputLost(3, 0, 10 * kSecond));
  h.inputs[1].put(20 * kSecond, packet({.pid = 0x999}));  // any packet will do
  EXPECT_FALSE(h.router.inputLost(3, 0, 20 * kSecond + kSecond / 2 - 1));
  EXPECT_TRUE(h.router.inputLost(3, 0, 20 * kSecond + kSecond / 2));
  EXPECT_FALSE(h.router.inputLost(3, 1, 20 * kSecond + kSecond / 2)) << "the other output's map";
  h.inputs[1].put(21 * kSecond, packet({.pid = 0x999}));
  h.router.set(21 * kSecond, 3, 0, 1, word(15, 0, 0x100, 0x101));
  EXPECT_TRUE(h.router.inputLost(3, 0, 21 * kSecond)) << "a slot that there is not";
  h.router.set(21 * kSecond, 3, 0, 1, PidRouter::kUnused);
  EXPECT_FALSE(h.router.inputLost(3, 0, 21 * kSecond));
}

// At half the rate the same time is half the packets, and those in excess go; none waits over a stop.
TEST(Router, FillsAnOutputsBufferAndTheMainBoardTellsForTwoSecondsWhatItDropped) {
  House h;
  headend::Violations violations;
  headend::Bus bus(violations);
  headend::MainBoard board;
  bus.attach(board);
  board.watch(0, 0, h.outputs[1]);
  for (const int port : {0, 1}) board.watch(3, port, h.outputs[static_cast<std::size_t>(port)]);
  const auto told = [&](Nanos t) { return bus.read(static_cast<const char*>(bus.mainBoard()) + 376, t); };
  const auto burst = [&](Nanos t, u64 packets) {
    for (u64 i = 0; i < packets; ++i) h.inputs[0].put(t, packet({.number = i}));
  };
  h.router.set(0, 3, 1, 0, word(0, 1, 0x100, 0x100));
  Multiplexer& output = h.outputs[1];
  const Nanos first = 62 * 16'320'000;  // exactly when a packet leaves
  burst(first, 50);
  const std::pair<Nanos, u16> reads[] = {
      {first - 1, 0}, {first, 0x81}, {first + 2 * kSecond - 1, 0x81}, {first + 2 * kSecond, 0}};
  for (const auto& [t, bits] : reads) EXPECT_EQ(told(t), bits) << t;
  EXPECT_TRUE(violations.counts().empty());
  EXPECT_EQ(h.kept[1].seen.front(), (Left{placeFrom(first), 0x100, 0}));

  burst(5 * kSecond, 40);
  output.setRate(5 * kSecond, {.numerator = output.rate().numerator / 2, .denominator = 204});
  EXPECT_EQ(output.buffered(), kRoom / 2);
  EXPECT_EQ(told(5 * kSecond), 0x81);
  const std::uint64_t dropped = output.counts().dropped;
  output.stop(5 * kSecond);
  EXPECT_EQ(output.buffered(), 0U);
  burst(6 * kSecond, 1);
  output.start(7 * kSecond, output.rate());
  output.advance(8 * kSecond);
  EXPECT_EQ(output.counts().routed, kRoom);
  EXPECT_EQ(output.counts().dropped, dropped);
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
      out[o].push_back({place[o], from.front().pid, from.front().number});
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
  void packet(Nanos t, int slot, int port, unsigned pid, u64 number) {
    for (const std::size_t o : {0U, 1U}) {
      leave(o, placeFrom(t));
      for (const Words& w : maps[o]) {
        if ((w[1] & 0x20) == 0 || (w[0] & 0x1FFF) != pid) continue;
        if ((w[0] >> 13 | (w[1] & 1) << 3) != port || (w[1] >> 1 & 15) != slot) continue;
        const unsigned to = (w[1] >> 6 & 0x3FFU) | (w[2] & 7U) << 10;
        if (blocked[o][to]) {
          ++filtered[o];
        } else if (buffer[o].size() == kRoom) {
          ++dropped[o];
        } else {
          buffer[o].push_back({0, to, number});
        }
        break;
      }
    }
  }
};

TEST(Router, DoesAsTheNaiveModelInAnyHistory) {
  std::uint64_t drops = 0;
  std::uint64_t filtered = 0;
  for (unsigned seed = 0; seed < 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](unsigned n) { return static_cast<unsigned>(random() % n); };
    House h;
    Naive naive;
    std::vector<Nanos> arrivals;  // of a packet by its number
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
        const u64 number = arrivals.size();
        h.inputs[when.second].put(when.first,
                                  packet({.pid = pid, .number = number, .pcr = pcrFor(when.first)}));
        naive.packet(when.first, slot, port, pid, number);
        arrivals.push_back(when.first);
      }
      now = until;
      const std::size_t o = below(2);
      Multiplexer& mux = h.outputs[o];
      const unsigned action = below(6);  // the highest: nobody looks
      if (action == 0) {
        const auto& [slot, port] = House::kInputs[below(3)];
        Words words = word(static_cast<unsigned>(slot), static_cast<unsigned>(port), 0x1FF0 + below(5),
                           0x400 + below(6));
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
        if (room) naive.psi[o].push_back({0, 0x10, arrivals.size()});
        ASSERT_EQ(mux.insertPsi(now, packet({.pid = 0x10, .number = arrivals.size()})), room);
        arrivals.push_back(now);
      } else if (action == 3) {
        mux.advance(now);
      }
    }
    for (const std::size_t o : {0U, 1U}) {
      naive.leave(o, placeFrom(now + 1));
      h.outputs[o].advance(now);
      ASSERT_EQ(h.kept[o].seen, naive.out[o]);
      for (std::size_t i = 0; i < naive.out[o].size(); ++i) {
        const auto& [place, pid, number] = naive.out[o][i];
        ASSERT_TRUE(pid == 0x10 || pcrIn(h.kept[o].whole[i]) == pcrFor(arrivals[number], place));
      }
      const Multiplexer::Counts& counts = h.outputs[o].counts();
      EXPECT_EQ(counts.total(), naive.place[o]);
      EXPECT_EQ(counts.dropped, naive.dropped[o]);
      EXPECT_EQ(counts.filtered, naive.filtered[o]);
      EXPECT_EQ(h.router.shadowed(3, static_cast<int>(o)), naive.shadowed(o));
      EXPECT_EQ(counts.offered, counts.routed + counts.dropped + counts.filtered + h.outputs[o].buffered());
      drops += counts.dropped;
      filtered += counts.filtered;
    }
  }
  EXPECT_GT(drops, 100U);
  EXPECT_GT(filtered, 100U);
}

}  // namespace
}  // namespace test
