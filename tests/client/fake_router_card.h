// A card's PID maps and the chassis's router behind it, as a client meets them: lock, chunks, the sort and
// the sending at the unlock. Its links are those of fake_card.h in kind: faults can be laid on every request.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "client/datagram.h"
#include "platform/wire.h"
#include "tests/client/fake_link.h"

namespace test {

class FakeRouterCard {
 public:
  using Wire = std::array<u8, 16>;  // an entry as it travels
  using Words = std::array<u16, 3>;

  struct Port {
    bool locked = false;
    u32 number = 0;
    std::vector<Wire> entries = std::vector<Wire>(256, blank());
    std::vector<Words> router = std::vector<Words>(256, Words{0xFFFF, 0x1F, 0});
    int applied = 0;
  };

  std::array<Port, 2> ports;
  std::map<u16, u32> inputs = {{4, 2}, {5, 16}};  // of the cards in the chassis, by slot from 0
  std::vector<client::Request> log;

  client::Reply handle(const client::Request& r) {
    log.push_back(r);
    client::Reply reply = client::replyTo(r);
    if (r.length != r.data.size())
      reply.result = 22;
    else if (r.slot != 0 || r.port > 1)
      reply.result = r.slot > 5 || r.port > 1 ? 18 : 21;
    else if (r.operation == client::Operation::kRouterMap)
      reply.data = routerData(ports[r.port]);
    else if (r.operation == client::Operation::kRead)
      reply.result = read(ports[r.port], r, reply.data);
    else
      reply.result = write(ports[r.port], r);
    return reply;
  }

 private:
  static Wire blank() {
    Wire wire{};
    wire.fill(0xFF);
    wire[0] = wire[2] = wire[4] = wire[5] = wire[6] = 0;  // eight bits each in the card's record
    return wire;
  }

  static client::Bytes routerData(const Port& port) {
    client::Bytes data;
    for (const Words& words : port.router) {
      for (const u16 word : words) {
        data.push_back(static_cast<u8>(word >> 8));
        data.push_back(static_cast<u8>(word));
      }
    }
    return data;
  }

  static u32 read(const Port& port, const client::Request& r, client::Bytes& out) {
    if (r.variable == 0x2101) {
      out = {0, 0, 0, static_cast<u8>(port.locked)};
      return r.data.empty() ? 0 : 22;
    }
    if (r.variable != 0x2102) return 2;
    if (r.data.size() != 4) return 22;
    const u32 start = wire::get32(r.data.data());
    const u32 n = port.number == 0 || start > port.number ? 0 : std::min(port.number - start, u32{89});
    out.assign(12, 0);
    wire::put32(out.data(), port.number);
    wire::put32(&out[4], start);
    wire::put32(&out[8], n);
    for (u32 i = 0; i < n; ++i) {
      out.insert(out.end(), port.entries[start + i].begin(), port.entries[start + i].end());
    }
    return 0;
  }

  u32 write(Port& port, const client::Request& r) {
    if (r.variable == 0x2101) {
      if (r.data.size() != 4) return 22;
      setLock(port, wire::get32(r.data.data()) != 0);
      return 0;
    }
    if (r.variable != 0x2102) return 2;
    const u32 count = r.data.size() < 12 ? 0 : wire::get32(&r.data[8]);
    return r.data.size() == 12 + 16u * count ? store(port, r.data) : 22;
  }

  u32 store(Port& port, const client::Bytes& in) const {
    const u32 total = wire::get32(in.data());
    const u32 start = wire::get32(&in[4]);
    const u32 count = std::min(wire::get32(&in[8]), u32{89});
    if (total > 256) return 1;
    if (start >= 256 || start + count > total) return 0;
    port.number = total;
    for (u32 i = 0; i < count; ++i) {
      Wire entry{};
      std::copy_n(&in[12 + 16 * i], entry.size(), entry.begin());
      const u16 slot = wire::get16(entry.data());
      if (slot >= 6) return 3;
      const auto card = inputs.find(slot);
      if (card == inputs.end()) return 21;
      if (card->second <= wire::get32(&entry[4])) return 3;
      port.entries[start + i] = entry;
    }
    return 0;
  }

  static u32 key(const Wire& e) {
    return (wire::get16(&e[12]) & 0x1FFFu) | u32{e[7]} << 13 | u32{e[1]} << 17;
  }

  static Words wordsOf(const Wire& e) {
    const u32 pid = wire::get16(&e[14]);
    const std::uint64_t value = key(e) % (1u << 17) | std::uint64_t{e[1] & 0xFu} << 17 |
                                std::uint64_t{1} << 21 | std::uint64_t{pid & 0x1FFF} << 22;
    return {static_cast<u16>(value), static_cast<u16>(value >> 16), static_cast<u16>(value >> 32)};
  }

  static void setLock(Port& port, bool lock) {
    if (lock == port.locked) return;
    port.locked = lock;
    if (lock) {
      port.number = 0;
      port.entries.assign(256, blank());
      return;
    }
    std::stable_sort(port.entries.begin(), port.entries.begin() + port.number,
                     [](const Wire& a, const Wire& b) { return key(a) < key(b); });
    for (u32 i = 0; i < 256; ++i) {
      port.router[i] = i < port.number ? wordsOf(port.entries[i]) : Words{0xFFFF, 0x1F, 0};
    }
    ++port.applied;
  }
};

using FakeRouterLink = FakeLinkTo<FakeRouterCard>;

}  // namespace test
