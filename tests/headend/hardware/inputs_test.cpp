// The inputs of source cards, judged by the packets that come out of them and when. What the packets say is
// read here anew, bit by bit, not with the inputs' own code.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <functional>
#include <map>
#include <random>
#include <tuple>

#include "headend/hardware/file_input.h"
#include "headend/hardware/udp_input.h"
#include "tests/headend/kernel/rig.h"
#include "tests/headend/scratch.h"

namespace test {
namespace {

using headend::FileInput;
using headend::kNever;
using headend::UdpInput;
using u64 = std::uint64_t;

constexpr u64 kTicks = 27'000'000;
constexpr u64 kWrap = (u64{1} << 33) * 300;

u64 bits(std::span<const u8> bytes, std::size_t from, std::size_t count) {
  u64 value = 0;
  for (std::size_t i = from; i < from + count; ++i) value = value << 1 | (bytes[i / 8] >> (7 - i % 8) & 1);
  return value;
}
void put(std::span<u8> bytes, std::size_t from, std::size_t count, u64 value) {
  for (std::size_t i = from + count; i-- > from; value >>= 1) {
    const auto mask = static_cast<u8>(0x80 >> i % 8);
    bytes[i / 8] = static_cast<u8>((bytes[i / 8] & ~mask) | ((value & 1) != 0 ? mask : 0));
  }
}
u64 readPcr(std::span<const u8> p) {
  return bits(p, 48, 33) * 300 + bits(p, 87, 9);
}
u64 readPesTime(std::span<const u8> f) {
  return bits(f, 4, 3) << 30 | bits(f, 8, 15) << 15 | bits(f, 24, 15);
}
bool carriesPcr(std::span<const u8> p) {
  return bits(p, 26, 1) == 1 && p[4] > 0 && bits(p, 43, 1) == 1;
}

// A packet with payload, with or without a PCR.
Bytes packet(u16 pid, unsigned counter, std::optional<u64> pcr = std::nullopt) {
  Bytes p(188, 0xAA);
  put(p, 0, 32, 0x47000010U | u32{pid} << 8 | (counter & 15));
  if (!pcr) return p;
  p[3] |= 0x20;
  p[4] = 7;
  p[5] = 0x10;
  put(p, 48, 33, *pcr / 300);
  put(p, 81, 6, 0x3F);
  put(p, 87, 9, *pcr % 300);
  return p;
}

constexpr double kNone = -1;

// A packet a PCR in milliseconds after `base_ticks`, or kNone.
Bytes stream(const std::vector<double>& pcrs_ms, u64 base_ticks = 0) {
  Bytes all;
  for (std::size_t i = 0; i < pcrs_ms.size(); ++i) {
    const u64 ticks = static_cast<u64>(std::llround(std::abs(pcrs_ms[i]) * 27e3));
    const auto pcr = pcrs_ms[i] == kNone ? std::nullopt : std::optional((base_ticks + ticks) % kWrap);
    const Bytes one = packet(0x100, static_cast<unsigned>(i), pcr);
    all.insert(all.end(), one.begin(), one.end());
  }
  return all;
}
class Inputs : public testing::Test {
 protected:
  std::string file(const Bytes& content) {
    const fs::path path = scratch.path / "stream.ts";
    writeFile(path, content);
    return path.string();
  }
  Scratch scratch;
};

TEST_F(Inputs, PacketsOfAFileArriveWhenItsPcrsSay) {
  struct Row {
    const char* name;
    std::optional<u64> rate;
    u64 base_ticks;
    std::vector<double> pcrs_ms, arrive_ms;
    double period_ms;
  };
  constexpr double none = kNone, tick = 1 / 27e3, bit = 1 / 7e3, t = 40. / 3;
  const Row rows[] = {
      {"before, between and after",
       {},
       5,
       {none, 0, none, none, 40, 60, none},
       {0, t, 2 * t, 3 * t, 4 * t, 4 * t + 20, 4 * t + 40},
       4 * t + 60},
      {"no whole nanoseconds", {}, 7, {0, tick, 2 * tick}, {0, tick, 2 * tick}, 1 / 90.},
      {"the PCR wraps", {}, kWrap - 540'000, {0, none, 40}, {0, 20, 40}, 60},
      {"one PCR far ahead", {}, 0, {0, 90e3, 80, 120, none}, {0, 40, 80, 120, 160}, 200},
      {"one that goes back", {}, 0, {1e3, none, 5, none, 1080}, {0, 20, 40, 60, 80}, 100},
      {"a new time base", {}, 0, {1e3, none, 1040, none, 7, none, 87}, {0, 20, 40, 60, 80, 120, 160}, 200},
      {"a new one at once", {}, 0, {90e3, 0, none, 40, none}, {0, 20, 40, 60, 80}, 100},
      {"a rate rules", 1'504'000, 0, {0, none, 40, none}, {0, 1, 2, 3}, 4},
      {"a rate that does not divide", 7'000'000, 0, {none, none}, {0, 1504 * bit}, 3008 * bit},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    FileInput input(file(stream(row.pcrs_ms, row.base_ticks)), row.rate, kSecond);
    const double period_ns = static_cast<double>(input.period_ticks()) * 1000 / 27;
    EXPECT_EQ(input.period_ticks() % 300, 0U);
    EXPECT_NEAR(period_ns, row.period_ms * 1e6 + 5'555, 5'556);  // rounded up to a tick of 90 kHz
    for (int pass = 0; pass < 3; ++pass) {
      for (const double arrive_ms : row.arrive_ms) {
        EXPECT_NEAR(static_cast<double>(input.nextArrival()), 1e9 + pass * period_ns + arrive_ms * 1e6, 1);
        input.take();
      }
    }
  }
}

TEST_F(Inputs, EachPassMovesPcrsAlikeAndContinuityGoesOn) {
  for (const char* sample : {"four-programmes-cbr.ts", "psi-many.ts"}) {
    SCOPED_TRACE(sample);
    const fs::path path = fs::path(QAM_SAMPLES) / sample;
    const Bytes whole = readFile(path);
    FileInput input(path.string(), 1'000'000);
    ASSERT_EQ(input.packets() * 188, whole.size());
    std::map<u64, u64> counters;
    for (u64 i = 0; i < 17 * input.packets(); ++i) {
      const auto taken = input.take();
      const auto original = std::span(whole).subspan(i % input.packets() * 188, 188);
      const u64 pid = bits(taken, 11, 13);
      const auto last = counters.find(pid);
      ASSERT_TRUE(pid == 0x1FFF || last == counters.end() ||
                  bits(taken, 28, 4) == (last->second + bits(taken, 27, 1)) % 16)
          << i;
      counters[pid] = bits(taken, 28, 4);
      if (carriesPcr(taken)) {
        const u64 shift_ticks = i / input.packets() * input.period_ticks();
        ASSERT_EQ(readPcr(taken), (readPcr(original) + shift_ticks) % kWrap) << i;
      } else if (bits(taken, 9, 1) == 0) {
        ASSERT_TRUE(std::ranges::equal(taken.subspan(4), original.subspan(4))) << i;
      }
    }
  }
}

TEST_F(Inputs, TimesWrapOverThousandsOfPassesAndNothingDrifts) {
  std::vector<double> pcrs(100, kNone);
  pcrs[0] = 0;
  FileInput input(file(stream(pcrs, kWrap - 1)), 1'504);  // a packet a second
  for (u64 second = 0; second < 200'000; ++second) {
    ASSERT_EQ(input.nextArrival(), static_cast<Nanos>(second) * kSecond);
    const auto taken = input.take();
    ASSERT_EQ(bits(taken, 28, 4), second % 16) << second;
    ASSERT_TRUE(second % 100 != 0 || readPcr(taken) == (kWrap - 1 + second * kTicks) % kWrap) << second;
  }
}

// PTS and DTS that lie across two packets, with one without payload between them.
TEST_F(Inputs, APesHeaderMayBeTorn) {
  const Bytes header = {0, 0, 1, 0xE0, 0, 0, 0x80, 0xC0, 10, 0x3F, 0xFF, 0xFF, 0xFF, 0xFD, 0x11, 0, 1, 0, 1};
  for (std::size_t cut = 1; cut < header.size(); ++cut) {
    SCOPED_TRACE(cut);
    const auto tear = static_cast<std::ptrdiff_t>(cut);
    Bytes all = packet(0x100, 5);
    put(all, 9, 1, 1);
    put(all, 26, 22, 0x350000U | (183 - cut) << 8);
    std::copy_n(header.begin(), tear, all.end() - tear);
    for (const Bytes& p : {packet(0x100, 5), packet(0x100, 6)}) all.insert(all.end(), p.begin(), p.end());
    put(all, 188 * 8 + 26, 22, 0x25B700);  // no payload
    std::copy(header.begin() + tear, header.end(), all.begin() + 2 * 188 + 4);

    FileInput input(file(all), 3 * 1504);  // passes of a second
    Bytes second;
    for (int i = 0; i < 6; ++i) {
      const auto taken = input.take();
      if (i >= 3) second.insert(second.end(), taken.begin(), taken.end());
    }
    Bytes again(second.begin() + 188 - tear, second.begin() + 188);
    again.insert(again.end(), second.begin() + 2 * 188 + 4, second.end());
    EXPECT_EQ(readPesTime(std::span(again).subspan(9, 5)), 90'000U - 2);
    EXPECT_EQ(readPesTime(std::span(again).subspan(14, 5)), 90'000U);
    EXPECT_EQ(again[9] & 0xF1, 0x31);
    EXPECT_EQ(std::tuple(second[3] & 15, second[188 + 3] & 15, second[376 + 3] & 15), std::tuple(7, 7, 8));
  }
}

// A sender on loopback, a router that takes what is due each millisecond, and virtual time, which the host's
// clock does not touch.
class Udp {
 public:
  explicit Udp(Nanos deJitter = UdpInput::kDefault) : input(network, "127.0.0.1", 0, deJitter) {
    to_.sin_family = AF_INET;
    to_.sin_port = htons(static_cast<u16>(std::stoi(input.name().substr(input.name().rfind(':') + 1))));
    to_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    rig.onAux = [this] { route(); };
  }
  ~Udp() { ::close(fd_); }
  Udp(const Udp&) = delete;
  Udp& operator=(const Udp&) = delete;

  void sendAt(Nanos when, const Bytes& datagram) {
    rig.kernel.at(when, [this, datagram] {
      const auto* to = reinterpret_cast<const sockaddr*>(&to_);
      ASSERT_EQ(::sendto(fd_, datagram.data(), datagram.size(), 0, to, sizeof to_), std::ssize(datagram));
      const u64 before = input.counts().datagrams;
      while (input.counts().datagrams == before) network.pollHost(kSecond);
    });
  }

  Rig rig{freeCalls()};
  headend::Network network{rig.kernel};
  UdpInput input;
  std::vector<std::pair<Nanos, u64>> arrived;  // and what the packet's last four bytes say
  bool routing = true;

 private:
  void route() {
    while (routing && input.nextArrival() <= rig.kernel.now()) {
      const Nanos when = input.nextArrival();
      EXPECT_GE(when, rig.kernel.now() - kMs) << "in the past";
      EXPECT_TRUE(arrived.empty() || when >= arrived.back().first) << "goes back";
      arrived.emplace_back(when, bits(input.take(), 184 * 8, 32));
    }
  }
  int fd_ = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in to_{};
};

Bytes numbered(Bytes p, u64 number) {
  put(p, 184 * 8, 32, number);
  return p;
}
Bytes rtp(const Bytes& payload, std::size_t sequence, std::initializer_list<u8> begin, const Bytes& behind,
          u8 padding) {
  Bytes all(begin);
  all.resize(12);
  put(all, 16, 16, sequence);
  all.insert(all.end(), behind.begin(), behind.end());
  all.insert(all.end(), payload.begin(), payload.end());
  if (padding > 0) all.insert(all.end(), padding, padding);
  return all;
}

// A packet each 10 ms of the sender's time, with a PCR each 40 ms from the third packet on.
TEST(UdpInputs, PlaysOnItsPcrs) {
  struct Row {
    const char* name;
    int packets;
    std::function<Nanos(int)> sent;
    std::function<std::int64_t(int)> pcr_ticks;
    std::function<Nanos(int)> plays;
    int from;  // the first packet whose time is judged
    Nanos within;
    u64 discontinuities = 0, underruns = 0, overruns = 0, pauses = 0;
  };
  const auto even = [](int i) { return i * 10 * kMs; };
  const auto clock = [](int i) { return i * std::int64_t{270'000}; };
  const auto later = [](int i) { return (i * 10 + 200) * kMs; };
  const auto bursts = [](int i) { return (i / 5 * 50 + 40) * kMs; };
  const Row rows[] = {
      {"even", 100, even, clock, later, 0, 0},
      {"in bursts, 50 ms apart", 400, bursts, clock, [](int i) { return (i * 10 + 220) * kMs; }, 2, 5 * kMs},
      {"through a wrap", 100, even, [=](int i) { return clock(i) - 13'500'000; }, later, 0, 0},
      {"a sender 100 ppm slow, for ten minutes", 60'000, [](int i) { return i * 10'001'000LL; }, clock,
       [](int i) { return i * 10'001'000LL + 200 * kMs; }, 0, 4 * kMs},
      {"a new time base", 100, even, [=](int i) { return clock(i) + (i < 50 ? 0 : 900'000'000); }, later, 0,
       0, 1},
      {"a time base that goes back", 100, even, [=](int i) { return clock(i) - (i < 50 ? 0 : 2'700'000); },
       later, 0, 0, 1},
      {"a pause", 100, [](int i) { return (i * 10 + (i < 50 ? 0 : 3'000)) * kMs; }, clock,
       [](int i) { return (i * 10 + (i < 50 ? 200 : 3'200)) * kMs; }, 0, 0, 0, 0, 0, 1},
      {"half as fast as it says", 60, [](int i) { return i * 20 * kMs; }, clock,
       [](int i) { return i * 20 * kMs + 100 * kMs; }, 2, 101 * kMs, 0, 2},
      {"twice as fast as it says", 120, [](int i) { return i * 5 * kMs; }, clock,
       [](int i) { return i * 5 * kMs + 300 * kMs; }, 2, 101 * kMs, 0, 0, 2},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Udp udp;
    for (int i = 0; i < row.packets; ++i) {
      const auto pcr = static_cast<u64>(row.pcr_ticks(i) + static_cast<std::int64_t>(kWrap)) % kWrap;
      const bool has = i % 4 == 2;
      udp.sendAt(row.sent(i),
                 numbered(packet(0x100, 0, has ? std::optional(pcr) : std::nullopt), static_cast<u64>(i)));
    }
    udp.rig.runUntil(row.sent(row.packets) + kSecond);
    ASSERT_EQ(udp.arrived.size(), static_cast<std::size_t>(row.packets));
    Nanos worst = 0;
    for (int i = 0; i < row.packets; ++i) {
      const auto& [when, number] = udp.arrived[static_cast<std::size_t>(i)];
      ASSERT_EQ(number, static_cast<u64>(i));
      if (i >= row.from && i <= row.packets - 4) worst = std::max(worst, std::abs(when - row.plays(i)));
    }
    EXPECT_LE(worst, row.within);
    const UdpInput::Counts& counts = udp.input.counts();
    EXPECT_EQ(std::tuple(counts.discontinuities, counts.underruns, counts.overruns, counts.pauses),
              std::tuple(row.discontinuities, row.underruns, row.overruns, row.pauses));
  }
}

TEST(UdpInputs, UnwrapsRtpAndDropsWhatIsNeither) {
  const Bytes one = packet(0x100, 0);
  Bytes seven;
  for (int i = 0; i < 7; ++i) seven.insert(seven.end(), one.begin(), one.end());
  Bytes unsynchronised = seven;
  unsynchronised[188] = 0;
  struct Row {
    const char* name;
    Bytes datagram;
    u64 packets;
    u64 lost = 0;
  };
  const Row rows[] = {
      {"seven packets", seven, 7},
      {"RTP with its marker", rtp(seven, 0xFFFF, {0x80, 33 | 0x80}, {}, 0), 7},
      {"two sources", rtp(one, 0, {0x82, 33}, Bytes(8), 0), 1},
      {"a source, an extension and padding", rtp(one, 1, {0xB1, 33}, {0, 0, 0, 0, 9, 9, 0, 1, 1, 2, 3, 4}, 4),
       1},
      {"three are missing", rtp(one, 5, {0x80, 33}, {}, 0), 1, 3},
      {"late", rtp(one, 4, {0x80, 33}, {}, 0), 1},
      {"goes on", rtp(one, 6, {0x80, 33}, {}, 0), 1},
      {"a byte short", Bytes(seven.begin(), seven.end() - 1), 0},
      {"a sync byte missing", unsynchronised, 0},
      {"another version", rtp(one, 7, {0x40, 33}, {}, 0), 0},
      {"another payload", rtp(one, 7, {0x80, 96}, {}, 0), 0},
      {"a header without packets", rtp({}, 7, {0x80, 33}, {}, 0), 0},
      {"an extension past the end", rtp(one, 7, {0x90, 33}, {0, 0, 0xFF, 0xFF}, 0), 0},
      {"padding past the end", rtp({}, 7, {0xA0, 33}, {9}, 0), 0},
  };
  Udp udp;
  u64 packets = 0, foreign = 0, lost = 0;
  Nanos at = 0;
  for (const Row& row : rows) {
    udp.sendAt(at, row.datagram);
    packets += row.packets;
    foreign += row.packets == 0 ? 1 : 0;
    lost += row.lost;
    udp.rig.kernel.at(at, [&, row, packets, foreign, lost] {
      const UdpInput::Counts& c = udp.input.counts();
      EXPECT_EQ(std::tuple(c.packets, c.foreign, c.rtpLost), std::tuple(packets, foreign, lost)) << row.name;
    });
    at += kMs;
  }
  udp.rig.runUntil(kSecond);
  ASSERT_EQ(udp.arrived.size(), packets);
  EXPECT_EQ(udp.arrived.front().first, 200 * kMs);  // without PCRs at arrival and the delay
}

// Whatever stands around sound packets: what comes out are those packets, whole and in order.
TEST(UdpInputs, NoDatagramBringsWhatWasNotSent) {
  Udp udp;
  std::mt19937 random(3);
  const auto below = [&](std::size_t n) { return random() % n; };
  u64 sent = 0;
  for (int i = 0; i < 4000; ++i) {
    Bytes datagram(below(4) == 0 ? 0 : 12 + 4 * below(8));
    for (u8& each : datagram) each = static_cast<u8>(below(8));
    if (!datagram.empty()) {
      datagram[0] = static_cast<u8>(below(2) == 0 ? 0x80 | below(0x40) : 0x80 | (datagram.size() - 12) / 4);
      datagram[1] = 33;
    }
    for (std::size_t n = below(4); n > 0; --n) {
      const Bytes one = numbered(packet(0x100, 0, below(9) == 0 ? std::optional(sent) : std::nullopt), sent);
      ++sent;
      datagram.insert(datagram.end(), one.begin(), one.end());
    }
    datagram.resize(datagram.size() + below(4) * below(4), static_cast<u8>(below(6)));
    if (below(5) == 0) datagram.resize(below(datagram.size() + 1));
    udp.sendAt(i * kMs / 4, datagram);
  }
  udp.rig.runUntil(5 * kSecond);
  ASSERT_EQ(udp.arrived.size(), udp.input.counts().packets);
  EXPECT_GT(udp.arrived.size(), 1000U);
  EXPECT_GT(udp.input.counts().foreign, 1000U);
  for (std::size_t i = 0; i < udp.arrived.size(); ++i) {
    ASSERT_LT(udp.arrived[i].second, sent);
    ASSERT_TRUE(i == 0 || udp.arrived[i].second > udp.arrived[i - 1].second) << i;
  }
}

TEST(UdpInputs, HoldsNoMoreThanItsBuffer) {
  Udp udp(kMs);
  udp.routing = false;
  for (u64 i = 0; i < 3000; ++i) udp.sendAt(0, numbered(packet(0x100, 0), i));
  udp.rig.kernel.at(kSecond, [&] {
    while (udp.input.nextArrival() != kNever)
      udp.arrived.emplace_back(0, bits(udp.input.take(), 184 * 8, 32));
  });
  udp.rig.runUntil(2 * kSecond);
  ASSERT_EQ(udp.arrived.size() + udp.input.counts().full, 3000U);
  EXPECT_LT(udp.arrived.size(), 1500U);
  for (std::size_t i = 0; i < udp.arrived.size(); ++i) ASSERT_EQ(udp.arrived[i].second, i);
}

}  // namespace
}  // namespace test
