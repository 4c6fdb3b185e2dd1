// When which stored packet of a channel is due, told a second time and otherwise than by the module: sections
// laid out in rings, and times on a clock of each table type that stands while the type is silent.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "card/QamCardPara.h"
#include "ts/qamIntr.h"

namespace test {

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

}  // namespace test
