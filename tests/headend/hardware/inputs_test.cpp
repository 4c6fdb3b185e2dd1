// The inputs of source cards, judged by the packets that come out of them and when.
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <tuple>

#include "client/udp_link.h"
#include "headend/hardware/file_input.h"
#include "headend/hardware/udp_input.h"
#include "tests/headend/kernel/rig.h"
#include "tests/headend/packets.h"

namespace test {
namespace {

using headend::UdpInput;

constexpr double kNone = -1;

// A packet a PCR in milliseconds after `base_ticks`, or kNone.
Bytes stream(const std::vector<double>& pcrs_ms, u64 base_ticks) {
  Bytes all;
  for (const double ms : pcrs_ms) {
    PacketFields fields{.counter = all.size() / 188};
    if (ms != kNone) fields.pcr = (base_ticks + static_cast<u64>(std::llround(ms * 27e3))) % kPcrWrap;
    all = std::move(all) + packet(fields);
  }
  return all;
}

headend::FileInput play(const Bytes& content, std::optional<u64> rate = std::nullopt, Nanos start = 0) {
  const Scratch scratch;  // a file that is removed plays on
  writeFile(scratch.path / "stream.ts", content);
  return headend::FileInput((scratch.path / "stream.ts").string(), rate, start);
}

// Each pass moves PCRs alike, and continuity goes on. Packets that are added between two passes, without
// payload, keep the PCRs of the first row as near to each other as they are in the file.
TEST(Inputs, PacketsOfAFileArriveWhenItsPcrsSay) {
  using Times = std::vector<double>;
  constexpr double none = kNone, tick = 1 / 27e3, bit = 1 / 7e3;
  // By name: the rate, the start of the PCRs, and in ms: the PCRs, arrivals of packets, the time of a pass.
  const std::tuple<const char*, std::optional<u64>, u64, Times, Times, double> rows[] = {
      {"before, between and after", {}, 5, {none, 0, none, 30, 60, none}, {0, 15, 30, 45, 75, 105}, 135},
      {"no whole nanoseconds", {}, 7, {0, tick, 2 * tick}, {0, tick, 2 * tick}, 1 / 90.},
      {"the PCR wraps", {}, kPcrWrap - 540'000, {0, none, 40}, {0, 20, 40}, 60},
      {"one PCR far ahead", {}, 0, {0, 90e3, 80, 120, none}, {0, 40, 80, 120, 160}, 200},
      {"a new time base", {}, 0, {1e3, none, 1040, none, 7, none, 87}, {0, 20, 40, 60, 80, 120, 160}, 200},
      {"a new one at once", {}, 0, {90e3, 0, none, 40, none}, {0, 20, 40, 60, 80}, 100},
      {"a rate rules", 1'504'000, 0, {0, none, 40, none}, {0, 1, 2, 3}, 4},
      {"a rate that does not divide", 7'000'000, 0, {none, none}, {0, 1504 * bit}, 3008 * bit},
  };
  for (const auto& [name, rate, base_ticks, pcrs_ms, arrive_ms, period_ms] : rows) {
    SCOPED_TRACE(name);
    const Bytes whole = stream(pcrs_ms, base_ticks);
    auto input = play(whole, rate, kSecond);
    const double period_ns = static_cast<double>(input.period_ticks()) * 1000 / 27;
    EXPECT_EQ(input.period_ticks() % 300, 0U);
    EXPECT_NEAR(period_ns, period_ms * 1e6 + 5'555, 5'556);  // rounded up to a tick of 90 kHz
    u64 last_ticks = base_ticks;
    int added = 0;
    for (u64 i = 0; i < 3 * pcrs_ms.size(); ++i) {
      const u64 pass = i / pcrs_ms.size(), place = i % pcrs_ms.size();
      const double arrival = 1e9 + static_cast<double>(pass) * period_ns + arrive_ms[place] * 1e6;
      Nanos when = input.nextArrival();
      auto taken = input.take();
      for (; (taken[3] & 0x10) == 0; taken = input.take()) {  // added between two passes
        EXPECT_EQ(pcrIn(taken) - last_ticks, 25 * 27'000U);
        EXPECT_NEAR(static_cast<double>(when),
                    1e9 + static_cast<double>(pcrIn(taken) - base_ticks) / .027 + 15e6, 1);
        last_ticks = pcrIn(taken);
        ++added;
        when = input.nextArrival();
      }
      EXPECT_NEAR(static_cast<double>(when), arrival, 1);
      const auto* begin = whole.data() + place * 188;
      Bytes expected(begin, begin + 188);
      put(expected, 28, 4, i);
      if (pcrs_ms[place] != kNone) {
        putPcr(expected, pcrIn(expected) + pass * input.period_ticks());
        last_ticks = pcrIn(expected);
      }
      EXPECT_TRUE(std::ranges::equal(taken, expected)) << i;
    }
    EXPECT_EQ(added, base_ticks == 5 ? 5 : 0);
  }
}

TEST(Inputs, AFileThatIsCutWhilePlayingEndsItsInputWithAReason) {
  const Scratch scratch;
  const std::string file = (scratch.path / "stream.ts").string();
  writeFile(file, stream({0, kNone, 40}, 0));
  std::vector<std::string> said;
  headend::FileInput input(file, std::nullopt, 0, [&](const std::string& text) { said.push_back(text); });
  for (int i = 0; i < 3; ++i) input.take();
  std::filesystem::resize_file(file, 188);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(input.take().size(), 188U);
  EXPECT_EQ(input.nextArrival(), headend::kNever);
  ASSERT_EQ(said.size(), 1U);
  EXPECT_NE(said[0].find(file + " cannot be played any longer: it ends after 1 "), std::string::npos)
      << said[0];
}

// In passes of a second. PTS and DTS lie across two packets, with one without payload between them.
TEST(Inputs, EachPassMovesPtsAndDtsOfStreamsThatHaveAPesHeader) {
  Bytes header = {0, 0, 1, 0xE0, 0, 0, 0x80, 0xC0, 10, 0x3F, 0xFF, 0xFF, 0xFF, 0xFD, 0x11, 0, 1, 0, 1};
  const Bytes later = {0, 0, 1, 0xE0, 0, 0, 0x80, 0xC0, 10, 0x31, 0, 5, 0xBF, 0x1D, 0x11, 0, 5, 0xBF, 0x21};
  for (std::size_t cut = 1; cut < header.size(); ++cut) {
    for (const u8 id : Bytes{0xE0, 0xBB, 0xBC, 0xBE, 0xBF, 0xF0, 0xF1, 0xF2, 0xF8, 0xFF}) {
      SCOPED_TRACE(testing::Message() << "stream " << int{id} << ", cut at " << cut);
      header[3] = id;
      Bytes all;
      for (const u64 counter : {5U, 5U, 6U}) all = all + packet({.counter = counter});
      put(all, 9, 1, 1);
      put(all, 26, 22, 0x350000U | (183 - cut) << 8);  // an adaptation field up to the header
      put(all, 188 * 8 + 26, 22, 0x25B700);            // no payload
      const auto fill = [&](const Bytes& bytes) {
        for (std::size_t i = 0; i < bytes.size(); ++i)
          all[i < cut ? 188 - cut + i : 380 + i - cut] = bytes[i];
      };
      fill(header);
      auto input = play(all, 3 * 1504);
      for (int i = 0; i < 3; ++i) input.take();
      if (id == 0xE0) fill(later);
      for (const std::size_t i : {0U, 1U, 2U}) {
        put(all, i * 1504 + 28, 4, i < 2 ? 7 : 8);
        EXPECT_TRUE(std::ranges::equal(input.take(), std::span(all).subspan(i * 188, 188))) << "packet " << i;
      }
    }
  }
}

// A sender on loopback, a router that takes what is due each millisecond, and virtual time, which the host's
// clock does not touch.
struct Udp {
  Rig rig{freeCalls()};
  headend::Network network{rig.kernel};
  UdpInput input;
  client::UdpService service{.defaultPort = 1, .advice = ""};
  client::ServerSocket socket{input.name().substr(std::string("udp://").size()), service};
  std::vector<std::pair<Nanos, u64>> arrived;  // and the packet's number

  explicit Udp(Nanos deJitter = 200 * kMs) : input(network, "127.0.0.1", 0, deJitter) {
    rig.onAux = [this] {
      while (input.nextArrival() <= rig.kernel.now()) {
        const Nanos when = input.nextArrival();
        EXPECT_GE(when, arrived.empty() ? 0 : arrived.back().first) << "goes back";
        EXPECT_GE(when, rig.kernel.now() - kMs) << "in the past";
        arrived.emplace_back(when, numberIn(input.take()));
      }
    };
  }
  void sendAt(Nanos when, const Bytes& datagram) {
    rig.kernel.at(when, [this, datagram] {
      const u64 before = input.counts().datagrams;
      socket.send(datagram);
      while (input.counts().datagrams == before) network.pollHost(kSecond);
    });
  }
};

// A packet each 10 ms of the sender's time, with a PCR each 40 ms from the third packet on; the PCRs wrap
// before packet 30. From packet 50 on all come later by `pause`, and the PCRs are ahead by `jump_ticks`.
TEST(Inputs, DatagramsPlayOnTheirPcrs) {
  struct Row {
    const char* name;
    int packets = 100;
    Nanos every = 10 * kMs;
    u64 jump_ticks = 0;
    Nanos pause = 0;
    int burst = 1;            // number of packets sent together, with the last of them
    Nanos delay = 200 * kMs;  // from its arrival until it plays
    Nanos within = 0;
    std::array<u64, 4> faults = {};  // discontinuities, underruns, overruns, pauses
  };
  const Row rows[] = {
      {.name = "in bursts", .packets = 400, .burst = 5, .delay = 220 * kMs, .within = 5 * kMs},
      {.name = "a sender 100 ppm slow", .packets = 60'000, .every = 10'001'000, .within = 10 * kMs},
      {.name = "a new time base", .jump_ticks = 900'000'000, .faults = {1, 0, 0, 0}},
      {.name = "a pause", .pause = 3 * kSecond, .faults = {0, 0, 0, 1}},
      {"half as fast as it says", 60, 20 * kMs, 0, 0, 1, 100 * kMs, 101 * kMs, {0, 2, 0, 0}},
      {"twice as fast as it says", 120, 5 * kMs, 0, 0, 1, 300 * kMs, 101 * kMs, {0, 0, 2, 0}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Udp udp;
    const auto late = [&](int i) { return i < 50 ? 0 : row.pause; };
    const auto sent = [&](int i) { return (i - i % row.burst + row.burst - 1) * row.every + late(i); };
    for (int i = 0; i < row.packets; ++i) {
      PacketFields fields{.number = static_cast<u64>(i)};
      const u64 pcr = kPcrWrap - 8'000'000 + fields.number * 270'000 + (i < 50 ? 0 : row.jump_ticks);
      if (i % 4 == 2) fields.pcr = pcr % kPcrWrap;
      udp.sendAt(sent(i), packet(fields));
    }
    udp.rig.runUntil(sent(row.packets) + kSecond);
    ASSERT_EQ(udp.arrived.size(), static_cast<std::size_t>(row.packets));
    for (int i = 0; i < row.packets; ++i) {
      const auto& [when, number] = udp.arrived[static_cast<std::size_t>(i)];
      ASSERT_EQ(number, static_cast<u64>(i));
      if (i < 2 || i > row.packets - 4) continue;  // before the first PCR, after the last
      ASSERT_LE(std::abs(when - i * row.every - late(i) - row.delay), row.within) << i;
    }
    const UdpInput::Counts& counts = udp.input.counts();
    const std::array faults = {counts.discontinuities, counts.underruns, counts.overruns, counts.pauses};
    EXPECT_EQ(faults, row.faults);
  }
}

// A PCR each 40 ms for 20 minutes, over a network that delays it. By the rate that the sender's clock
// differs: the output's rate differs from the sender's within limits that become narrower, and no packet is
// too late.
TEST(Inputs, TheClockFollowsASender) {
  std::mt19937 random(1);
  const auto delayed = [&](const std::string& jitter, double sent_s) {
    if (jitter == "independent") return sent_s + std::uniform_real_distribution(0.0, 0.035)(random);
    return jitter == "bursts" ? std::ceil(sent_s / 0.035) * 0.035 : sent_s;
  };
  for (const std::string jitter : {"none", "independent", "bursts"}) {
    for (const double ppm : {0., 10., 30., -30., 80., -80., 99.}) {
      SCOPED_TRACE(testing::Message() << jitter << ", " << ppm << " ppm");
      headend::SourceClock clock;
      const double begin_s = delayed(jitter, 0);
      double play_s = begin_s + 0.2;
      for (int i = 1; i < 20 * 60 * 25; ++i) {
        const double pcr_s = i * 0.04, arrival_s = delayed(jitter, pcr_s * (1 + ppm / 1e6));
        const double off_ppm = std::abs(clock.slowness() * 1e6 - ppm);
        ASSERT_LE(std::abs(clock.slowness()), 100.01e-6) << pcr_s;
        ASSERT_LE(off_ppm, pcr_s > 600 ? 5 : pcr_s > 120 || std::abs(ppm) <= 30 ? 30.01 : 99) << pcr_s;
        play_s += 0.04 * (1 + clock.slowness());
        ASSERT_GE(play_s, arrival_s + 0.1) << pcr_s;
        clock.note(0.04, arrival_s - begin_s - pcr_s, play_s - arrival_s - 0.2);
      }
      EXPECT_NEAR(play_s - begin_s - 1200 * (1 + ppm / 1e6), 0.2, 0.06);
    }
  }
}

TEST(Inputs, TheClockLeadsTheWaitToTheMiddleOfTheBuffer) {
  headend::SourceClock clock;
  double excess_s = 0.02;
  for (int second = 0; second < 6 * 3600; ++second) {
    clock.note(1, 0, excess_s);
    ASSERT_LE(std::abs(clock.slowness()), second < 299 ? 0 : 2.01e-6) << second;
    excess_s += clock.slowness();
  }
  EXPECT_LT(std::abs(excess_s), 0.003);
}

Bytes rtp(Bytes begin, u64 sequence, const Bytes& behind, const Bytes& payload, u8 padding = 0) {
  begin.resize(12);
  put(begin, 16, 16, sequence);
  return begin + behind + payload + Bytes(padding, padding);
}

TEST(Inputs, DatagramsArePacketsAloneOrInRtp) {
  const Bytes one = packet({});
  const Bytes seven = one + one + one + one + one + one + one;
  Bytes unsynchronised = seven;
  unsynchronised[188] = 0;
  const Bytes extended = {0, 0, 0, 0, 9, 9, 0, 1, 1, 2, 3, 4};  // a source and an extension
  const std::tuple<const char*, Bytes, u64> rows[] = {
      // and packets so far
      {"seven packets", seven, 7},
      {"RTP with its marker", rtp({0x80, 33 | 0x80}, 0xFFFE, {}, seven), 14},
      {"two sources, and one is missing", rtp({0x82, 33}, 0, Bytes(8), one), 15},
      {"late", rtp({0x80, 33}, 0xFFFF, {}, one), 16},
      {"a source, an extension and padding", rtp({0xB1, 33}, 1, extended, one, 4), 17},
      {"three are missing", rtp({0x80, 33}, 5, {}, one), 18},
      {"goes on", rtp({0x80, 33}, 6, {}, one), 19},
      {"a byte short", Bytes(seven.begin(), seven.end() - 1), 19},
      {"a sync byte missing", unsynchronised, 19},
      {"another version", rtp({0x40, 33}, 7, {}, one), 19},
      {"another payload", rtp({0x80, 96}, 7, {}, one), 19},
      {"a header without packets", rtp({0x80, 33}, 7, {}, {}), 19},
      {"an extension past the end", rtp({0x90, 33}, 7, {0, 0, 0xFF, 0xFF}, one), 19},
      {"padding past the end", rtp({0xA0, 33}, 7, {9}, {}), 19},
  };
  Udp udp;
  for (Nanos at = 0; const auto& r : rows) {
    udp.sendAt(at, std::get<1>(r));
    udp.rig.kernel.at(at, [&] { EXPECT_EQ(udp.input.counts().packets, std::get<2>(r)) << std::get<0>(r); });
    at += kMs;
  }
  udp.rig.runUntil(kSecond);
  EXPECT_EQ(std::tuple(udp.input.counts().foreign, udp.input.counts().rtpLost), std::tuple(7U, 4U));
  EXPECT_EQ(udp.arrived.at(0).first, 200 * kMs);  // without PCRs at arrival and the delay
}

TEST(Inputs, HoldNoMoreDatagramsThanTheirBuffer) {
  Udp udp(kMs);
  for (u64 i = 0; i < 3000; ++i) udp.sendAt(0, packet({.number = i}));
  udp.rig.runUntil(kSecond);
  ASSERT_EQ(udp.arrived.size() + udp.input.counts().full, 3000U);
  EXPECT_LT(udp.arrived.size(), 1500U);
  for (std::size_t i = 0; i < udp.arrived.size(); ++i) ASSERT_EQ(udp.arrived[i].second, i);
}

}  // namespace
}  // namespace test
