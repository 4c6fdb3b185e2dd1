// The router between inputs and outputs, the outputs' buffers among it.
#include <gtest/gtest.h>

#include <deque>
#include <map>
#include <random>
#include <set>

#include "headend/hardware/bus.h"
#include "headend/hardware/pid_router.h"
#include "tests/headend/packets.h"

namespace test {
namespace {

using headend::Multiplexer;
using headend::PidRouter;
using Words = PidRouter::Words;
__extension__ using Wide = __int128;

// Knows of a packet what a test has put in; more may come at any time.
struct FakeInput final : headend::TsInput {
  void put(Nanos arrival, Bytes packet) { coming.emplace_back(arrival, std::move(packet)); }
  Nanos nextArrival() const override { return coming.empty() ? headend::kNever : coming.front().first; }
  mpeg::PacketView take() override {
    taken = std::move(coming.front().second);
    coming.pop_front();
    return mpeg::PacketView(taken.data(), 188);
  }
  const std::string& name() const override { return unnamed; }

  std::deque<std::pair<Nanos, Bytes>> coming;
  Bytes taken;
  std::string unnamed;
};

// A position of the map: 21 bits that name a source, one that it is in use, 13 of the new PID.
constexpr u64 kInUse = 1 << 21, kUnused = 0x1FFFFF, kNames = kInUse | 0x1FFFFF;
u64 position(u64 slot, u64 port, u64 pid, u64 newPid = 0) {
  return slot << 17 | port << 13 | pid | kInUse | newPid << 22;
}
Words words(u64 position) {
  return {static_cast<u16>(position), static_cast<u16>(position >> 16), static_cast<u16>(position >> 32)};
}

// Outputs on which a packet takes 1632 * 10^6 / 700 ns, so that their buffers take 42.
constexpr unsigned kBitsAMs = 700;
constexpr std::size_t kRoom = 42;
// The place that is on the air at `t`, or the one after it.
u64 placeFrom(Nanos t) {
  return static_cast<u64>((Wide{t} * kBitsAMs + 1'631'999'999) / 1'632'000'000);
}

// The PCR of every packet that arrives; and when it has left at a place: later by its time in the buffer, to
// the nearest tick.
constexpr u64 kPcr = kPcrWrap - 1'000'000;
u64 restamped(Nanos arrival, u64 place) {
  const Wide waits = Wide{place} * 1'632'000'000 - Wide{arrival} * kBitsAMs;  // in ns * kBitsAMs
  return (kPcr + static_cast<u64>((waits * 27 * 2 + 1000 * kBitsAMs) / (2000 * kBitsAMs))) % kPcrWrap;
}

// Inputs, of which the last is never connected and the one before it only later, and the outputs of slot 3.
struct House {
  static constexpr std::array<std::pair<u8, u8>, 4> kInputs = {{{0, 1}, {5, 0}, {5, 15}, {15, 9}}};
  std::array<FakeInput, 3> inputs;
  std::array<Multiplexer, 2> outputs;
  std::array<PacketKeeper, 2> sinks;
  PidRouter router;

  House() {
    for (const std::size_t i : {0U, 1U}) {
      connect(i);
      outputs[i].setSink(&sinks[i]);
      outputs[i].start(0, headend::BitRate::ofModulation(kBitsAMs / 7, 7));
      router.connectOutput(3, static_cast<int>(i), outputs[i]);
    }
  }
  void connect(std::size_t i) { router.connectInput(kInputs[i].first, kInputs[i].second, inputs[i]); }
  void route(u16 index, u64 position) { router.set(0, 3, 0, index, words(position)); }
};

TEST(Router, CountsWhatAnInputBringsAndMissesItAfterHalfASecond) {
  House h;
  const auto lost = [&](Nanos t, int port = 0) { return h.router.inputLost(3, port, t); };
  EXPECT_FALSE(lost(9 * kSecond)) << "an empty map";
  h.route(0, position(5, 0, 0x100));
  EXPECT_TRUE(lost(9 * kSecond)) << "it never came";
  std::array<Bytes, 3> packets;
  packets.fill(packet({.pid = 0x999}));
  put(packets[1], 8, 1, 1);     // transport error
  put(packets[2], 0, 8, 0x46);  // no sync byte
  for (const Bytes& each : packets) h.inputs[1].put((10 + (&each - packets.data())) * kSecond, each);
  const Nanos late = 11 * kSecond + kSecond / 2;
  EXPECT_FALSE(lost(late - 1));
  EXPECT_TRUE(lost(late));
  EXPECT_FALSE(lost(late, 1)) << "the other output's map";
  EXPECT_TRUE(lost(12 * kSecond));
  const PidRouter::InputCounts& counts = *h.router.input(5, 0);
  EXPECT_EQ(std::tuple(counts.packets, counts.damaged, counts.last), std::tuple(2U, 2U, 11 * kSecond));
  for (const u16 index : {u16{1}, u16{2}}) h.route(index, position(5, 0, 0x100 + index / 2, 1));
  EXPECT_EQ(h.router.shadowed(3, 0), 1U) << "of three positions";
  for (const u16 index : {u16{0}, u16{1}, u16{2}}) h.route(index, kUnused);
  EXPECT_FALSE(lost(late));
  h.route(0, position(15, 0, 0x100));
  EXPECT_TRUE(lost(11 * kSecond)) << "a slot that there is not";
}

// At half the rate the same time is half the packets, and those in excess go; none waits over a stop.
TEST(Router, FillsAnOutputsBufferAndTheMainBoardTellsForTwoSecondsWhatItDropped) {
  House h;
  Multiplexer& output = h.outputs[0];
  headend::MainBoard board;
  board.watch(0, 0, output);
  board.watch(3, 1, output);
  const auto told = [&](Nanos t) { return board.read(headend::MainBoard::kRateOverflow, t); };
  const auto burst = [&](Nanos t, u64 packets) {
    for (; packets > 0; --packets) h.inputs[0].put(t, packet({}));
  };
  h.route(0, position(0, 1, 0x100));
  const Nanos first = 62 * 16'320'000;  // exactly when a packet leaves
  burst(first, 50);
  const std::pair<Nanos, u16> reads[] = {
      {first - 1, 0}, {first, 0x81}, {first + 2 * kSecond - 1, 0x81}, {first + 2 * kSecond, 0}};
  for (const auto& [t, bits] : reads) EXPECT_EQ(told(t), bits) << t;
  EXPECT_EQ(h.sinks[0].kept.begin()->first, placeFrom(first));

  burst(5 * kSecond, 40);
  output.setRate(5 * kSecond, {.numerator = output.rate().numerator / 2, .denominator = 204});
  EXPECT_EQ(output.buffered(), kRoom / 2);
  EXPECT_EQ(told(5 * kSecond), 0x81);
  output.stop(5 * kSecond);
  burst(6 * kSecond, 1);
  output.start(7 * kSecond, output.rate());
  output.advance(8 * kSecond);
  EXPECT_EQ(output.counts().routed, kRoom) << "of the first burst";
}

constexpr u64 kTables = 0x666;  // a PID that filters know, to no effect

// The plainest possible output: one event at a time, and everything searched for.
struct NaiveOutput {
  std::array<u64, 256> map;
  std::map<u64, bool> passes;
  std::deque<std::tuple<Nanos, u64, u64>> psi, buffer;  // arrival, PID, number
  std::map<u64, Bytes> left;                            // by place
  u64 place = 0, dropped = 0, filtered = 0;

  NaiveOutput() { map.fill(kUnused); }
  void leave(u64 until) {
    for (; place < until; ++place) {
      auto& from = psi.empty() ? buffer : psi;
      if (from.empty()) continue;
      const auto& [arrival, pid, number] = from.front();
      PacketFields fields{.pid = pid, .number = number};
      if (psi.empty()) fields.pcr = restamped(arrival, place);
      left[place] = packet(fields);
      from.pop_front();
    }
  }
  void offer(Nanos arrival, u64 names, u64 number) {
    leave(placeFrom(arrival));
    const auto found = std::ranges::find(map, names, [](u64 position) { return position & kNames; });
    if (found == map.end()) return;
    const u64 pid = *found >> 22;
    if (passes.contains(pid) && !passes[pid]) {
      ++filtered;
    } else if (buffer.size() == kRoom) {
      ++dropped;
    } else {
      buffer.emplace_back(arrival, pid, number);
    }
  }
};

TEST(Router, DoesAsTheNaiveModelInAnyHistory) {
  for (unsigned seed = 0; seed < 20; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](u64 n) { return random() % n; };
    const auto sourcePid = [&] { return below(5) * 0x7FF; };
    const auto newPid = [&] { return below(6) * 0x666; };
    House h;
    std::array<NaiveOutput, 2> naive;
    u64 number = 0;
    Nanos now = 0;
    for (int step = 0; step < 1500; ++step) {
      if (step == 300) h.connect(2);
      for (u64 n = below(8), input = 3; n > 0; --n) {
        if (input == 3 || below(3) != 0) now += static_cast<Nanos>(1 + below(1'200'000)), input = 0;
        input += below((step < 300 ? 2 : 3) - input);  // at one time by slot and port
        const auto& [slot, port] = House::kInputs[input];
        const u64 pid = sourcePid();
        h.inputs[input].put(now, packet({.pid = pid, .number = ++number, .pcr = kPcr}));
        for (NaiveOutput& each : naive) each.offer(now, position(slot, port, pid), number);
      }
      now += static_cast<Nanos>(below(2'000'000));
      const std::size_t o = below(2);
      Multiplexer& output = h.outputs[o];
      const u64 action = below(6);  // the highest: no check
      if (action == 0) {
        const auto& [slot, port] = House::kInputs[below(4)];
        const u64 index = below(2) * 244 + below(12), tooMuch = below(2) * 0xFFF800000000;
        u64& programmed = naive[o].map[index];
        programmed = position(slot, port, sourcePid(), newPid());
        if (below(3) == 0) programmed &= ~kInUse;
        h.router.set(now, 3, static_cast<int>(o), static_cast<u16>(index), words(programmed | tooMuch));
      } else if (action == 1) {
        const u64 pid = newPid();
        const bool pass = below(3) != 0;
        naive[o].passes[pid] = pass;
        output.setPass(now, static_cast<u16>(pid), pass);
      } else if (action == 2) {
        naive[o].leave(placeFrom(now + 1));
        const bool room = naive[o].psi.size() < Multiplexer::kPsiFifo;
        ASSERT_EQ(output.insertPsi(now, packet({.pid = kTables, .number = ++number})), room);
        if (room) naive[o].psi.emplace_back(now, kTables, number);
      } else if (action == 3) {
        output.advance(now);
      }
    }
    now += 100 * kSecond;
    for (const std::size_t o : {0U, 1U}) {
      NaiveOutput& expected = naive[o];
      expected.leave(placeFrom(now + 1));
      h.outputs[o].advance(now);
      ASSERT_TRUE(h.sinks[o].kept == expected.left);
      for (u16 i = 0; i < 256; ++i)
        ASSERT_EQ(h.router.position(3, static_cast<int>(o), i), words(expected.map[i])) << i;
      const Multiplexer::Counts& counts = h.outputs[o].counts();
      EXPECT_EQ(
          std::tuple(counts.total(), counts.dropped, counts.filtered, counts.offered - counts.routed),
          std::tuple(expected.place, expected.dropped, expected.filtered, counts.dropped + counts.filtered));
      EXPECT_GT(std::min(counts.dropped, counts.filtered), 5U);
    }
  }
}

}  // namespace
}  // namespace test
