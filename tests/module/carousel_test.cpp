// The carousel: what `qamIntr` posts at which tick, from which store; and the send task.
#include <fmt/format.h>

#include <algorithm>
#include <numeric>
#include <random>

#include "tests/module/chassis.h"
#include "ts/qamIntr.h"

namespace test {
namespace {

// When which stored packet of a channel is due, computed in another way than by the module: sections in
// rings, and a clock of each table type that stops while the type is silent.
class CarouselModel {
 public:
  // The channel's packets as they are in the store now; its intervals and counts are read at every tick.
  CarouselModel(const QamCardPara& record, u8 slot, u8 port) : record_(record), port_(port) {
    std::array<std::vector<u16>, 8> stored;
    for (u16 j = 0; j < 512; ++j) {
      const outPsiPkt_t& packet = record.psiPkt[port][j];
      if (packet.pid >= 8191 || packet.psiType >= 8) break;
      stored[packet.psiType].push_back(j);
    }
    for (u8 type = 0; type < 8; ++type) {
      streams_[type].ring = groups(stored[type], type == PMT);
      streams_[type].due = type + 6U * slot + 2U * port;
    }
  }

  // The packets posted in one tick, if the queue has room for `room`.
  std::vector<u32> tick(int room) {
    std::vector<u32> posted;
    for (u8 type = 0; type < 8; ++type) {
      Stream& stream = streams_[type];
      const int interval = record_.Interval[port_][type];
      if (interval == 0 || record_.pktNum[port_][type] == 0 || stream.ring.empty()) continue;
      if (stream.clock < stream.due) {
        ++stream.clock;
        continue;
      }
      if (pidTaken(type)) continue;
      const Packet& packet = stream.ring[stream.next];
      if (packet.position == 0 && packet.of != 0) stream.onAir = true;
      if (static_cast<int>(posted.size()) == room) continue;
      posted.push_back(packet.index);
      stream.next = (stream.next + 1) % stream.ring.size();
      if (packet.position + 1 != packet.of) continue;
      stream.onAir = false;
      if (interval > packet.of) stream.due = stream.clock + static_cast<u64>(interval - packet.of);
    }
    return posted;
  }

 private:
  using u64 = std::uint64_t;
  struct Packet {
    u16 index;
    int position, of;  // modulo 256, as the card counts
  };
  struct Stream {
    std::vector<Packet> ring;
    std::size_t next = 0;
    u64 clock = 0, due = 0;
    bool onAir = false;
  };

  // All PMT packets are one group. Of other tables a section is one group, and so is each packet before the
  // first start packet.
  std::vector<Packet> groups(const std::vector<u16>& stored, bool isOne) const {
    std::vector<Packet> ring;
    const auto starts = [&](std::size_t i) {
      return isOne ? i == 0 : (record_.psiPkt[port_][stored[i]].psiData[1] & 0x40) != 0;
    };
    for (std::size_t begin = 0, end = 0; begin < stored.size(); begin = end) {
      for (end = begin + 1; end < stored.size() && !starts(end);) ++end;
      for (std::size_t i = begin; i < end; ++i) {
        const int position = static_cast<int>(i - begin) % 256;
        const int size = static_cast<int>(starts(begin) ? end - begin : i - begin + 1) % 256;
        ring.push_back({stored[i], position, size});
      }
    }
    return ring;
  }

  bool pidTaken(u8 type) const {
    constexpr std::array<u8, 8> kPidOf = {0x00, 0xFF, 0x11, 0x11, 0x10, 0x10, 0x11, 0x01};
    for (u8 other = 0; other < 8; ++other) {
      if (other != type && kPidOf[other] == kPidOf[type] && streams_[other].onAir) return true;
    }
    return false;
  }

  const QamCardPara& record_;
  u8 port_;
  std::array<Stream, 8> streams_;
};

// A store in letters, one a packet: a PAT, m PMT, c and o SDT, n and x NIT, b BAT, k CAT, capital with the
// start indicator. What ends a store: . erased, ! on PID 8191, ? of type 8. ~ starts a PAT on PID 8190.
outPsiPkt_t packet(char letter) {
  constexpr std::string_view kTypes = "amconxbk";
  outPsiPkt_t stored{.pid = 0x100, .psiType = PAT, .counter = 0xFF, .psiData = {0x47, 0x40}};
  if (letter == '.') {
    std::fill_n(reinterpret_cast<u8*>(&stored), sizeof stored, u8{0xFF});
  } else if (letter == '!' || letter == '~') {
    stored.pid = letter == '!' ? 8191 : 8190;
  } else if (letter == '?') {
    stored.psiType = 8;
  } else {
    stored.psiType = static_cast<u8>(kTypes.find(static_cast<char>(letter | 0x20)));
    if ((letter & 0x20) != 0) stored.psiData[1] = 0x1F;
  }
  return stored;
}

void rebuild(QamCardPara& para, u8 slot, u8 port, const std::string& store) {
  std::fill_n(para.pktNum[port], 8, u16{0});
  std::fill_n(para.psiPkt[port], 512, packet('.'));
  for (std::size_t i = 0; i < store.size(); ++i) {
    para.psiPkt[port][i] = packet(store[i]);
    if (para.psiPkt[port][i].psiType < 8) ++para.pktNum[port][para.psiPkt[port][i].psiType];
  }
  qam_is_setting_psi[slot][port] = 1;
  QamSetPsiInterval(slot, port);
  qam_is_setting_psi[slot][port] = 0;
}

// What a tick posts to a queue with so much room.
std::vector<u32> tick(u8 slot, u8 port, int room = 256) {
  Queue& queue = Queue::of(g_qam_PsiSendQ_ID[slot][port]);
  queue.messages.clear();
  queue.room = room;
  chassis::GetCardPoint(slot)->auxClkIntRoutine(slot);
  return queue.messages;
}

using Carousel = ModuleTest;

// Module and model side by side.
TEST_F(Carousel, KeepsToTheModelWithAnyStoreAndLoad) {
  for (u8 slot = 0; slot < 6; ++slot) fake.start(slot);
  const std::size_t blocks = fake.blocks.size();
  for (u32 seed = 0; seed < 400; ++seed) {
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    const auto below = [&](u32 n) { return static_cast<u32>(random() % n); };
    const auto oneIn = [&](u32 n) { return below(n) == 0; };
    const u8 slot = static_cast<u8>(below(6)), port = static_cast<u8>(below(2));
    QamCardPara& para = *GetQamCardParaFromList(slot);

    // Mixtures, PIDs that tables share, and groups of 255 packets and more.
    const std::string_view letters[] = {"amconxbkAMCONXBKccoobbnnxx", "cobCOB", "mM", "c"};
    const std::string_view kind = letters[oneIn(8) ? 2 + below(2) : below(2)];
    const bool isLong = oneIn(8) || kind.size() < 3;
    const u32 size = !isLong ? 1 + below(40) : oneIn(2) ? 254 + below(6) : oneIn(2) ? 260 + below(250) : 510;
    std::string store = kind == "c" ? "AC" : "A";
    while (store.size() < size)
      store += oneIn(isLong ? 1000 : 100) ? "!?.~"[below(4)] : kind[below(static_cast<u32>(kind.size()))];
    store += "OB";  // the longest store has no end
    para.psiPkt[1 - port][0] = packet('A');
    rebuild(para, slot, port, store);
    const auto anyInterval = [&] { return static_cast<u16>(oneIn(8) ? 0 : 1 + below(oneIn(2) ? 6 : 400)); };
    std::generate_n(para.Interval[port], 8, anyInterval);
    if (oneIn(4)) para.pktNum[port][1 + below(7)] = 0;

    CarouselModel model(para, slot, port);
    const bool busy = oneIn(2);
    for (int t = 1; t <= (isLong ? 1000 : 300); ++t) {
      if (oneIn(40)) para.Interval[port][below(8)] = anyInterval();
      qam_is_setting_psi[slot][port] = oneIn(30) ? 1 : 0;
      const int room = static_cast<int>(busy ? below(4) : 8);
      const auto expected = qam_is_setting_psi[slot][port] != 0 ? std::vector<u32>{} : model.tick(room);
      ASSERT_EQ(tick(slot, port, room), expected) << "at tick " << t;
      ASSERT_TRUE(Queue::of(g_qam_PsiSendQ_ID[slot][1 - port]).messages.empty());
    }
    rebuild(para, slot, port, "");
    tick(slot, port);
    ASSERT_EQ(fake.blocks.size(), blocks) << "a rebuild gives back every node";
  }
}

// ---- From a queue's indices to the PSI ports ----

// 188 bytes of which no two neighbours agree, on the PID.
Bytes packetOn(u16 pid, u8 flags = 0x40) {
  Bytes packet(188);
  std::iota(packet.begin(), packet.end(), u8{0x47});
  packet[1] = static_cast<u8>(flags | pid >> 8);
  packet[2] = static_cast<u8>(pid);
  packet[3] = 0x9E;
  return packet;
}

// The port's accesses for a packet that goes out with this count.
Lines onThePort(u8 port, Bytes packet, int count) {
  packet[3] = static_cast<u8>(0x90 | (count & 0x0F));
  Lines steps;
  for (const u8 byte : packet) steps.push_back(fmt::format("PsiData{}={}", port, byte));
  steps.resize(204, fmt::format("PsiData{}=65535", port));
  return steps;
}

TEST_F(Carousel, SentPacketsTakeTheContinuityCountOfTheirPidAndPort) {
  fake.start(2);
  const auto send = [&](u8 port, u16 pid, u8 flags, int first, int end) {
    const Bytes packet = packetOn(pid, flags);
    for (int count = first; count < end; ++count) {
      ASSERT_EQ(fake.stepsOf([&] { qamWritePsi(2, packet.data(), port); }), onThePort(port, packet, count));
    }
  };
  send(0, 0, 0x40, 0, 300);
  send(1, 0, 0x40, 0, 1);
  send(0, 0x1FFF, 0x40, 0, 2);
  send(0, 0x0FFF, 0x40, 0, 1);
  send(0, 0x1FFF, 0xA0, 2, 3);
  send(0, 0, 0x00, 300, 301);
  send(1, 0, 0x40, 1, 2);
}

TEST_F(Carousel, TheSendTaskSendsWhatIsQueuedWhenThePortIsReady) {
  QamCardPara& para = *fake.start(2);
  for (const u8 port : {u8{0}, u8{1}}) {
    const Bytes first = packetOn(0x20), last = packetOn(0x21);
    std::copy(first.begin(), first.end(), para.psiPkt[port][0].psiData);
    std::copy(last.begin(), last.end(), para.psiPkt[port][511].psiData);
    fake.onRead = [polls = 0](u32) mutable { return static_cast<u16>(++polls % 4 == 0 ? 0x8000 : 0); };
    fake.queues[port]->messages = {0, 512, 511, 0x10000, 0xFFFFFFFF, 0};
    fake.forget();
    EXPECT_FALSE(fake.runs(fake.tasks[port]));
    const Lines polled(4, fmt::format("PsiRdy{}?", port));
    EXPECT_EQ(fake.steps, polled + onThePort(port, first, 0) + polled + onThePort(port, last, 0) + polled +
                              onThePort(port, first, 1));
  }
  EXPECT_EQ(QamTaskPsiSend(3, 0), -1) << "a slot without a record";

  g_qam_PsiSendQ_ID[2][0] = nullptr;
  fake.onCall = [&, delays = 0](std::string_view) mutable {
    if (++delays == 3) fake.leave();
  };
  fake.forget();
  EXPECT_FALSE(fake.runs(fake.tasks[0]));
  EXPECT_EQ(fake.steps, Lines(2, "1 ticks")) << "without a queue it sleeps";
}

}  // namespace
}  // namespace test
