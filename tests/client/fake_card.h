// A card as a client meets it, modelled on its own: the PSI store, the lock, the intervals and what a save
// would keep; the card's variables. FakeLink is the way to it, on which faults can be laid.
#pragma once

#include <array>
#include <map>
#include <utility>
#include <vector>

#include "client/datagram.h"
#include "client/psi_tables.h"
#include "platform/wire.h"
#include "tests/client/fake_link.h"

namespace test {

using client::Bytes;
using client::Packet;
using client::Reply;
using client::Request;

class FakeCard {
 public:
  struct Entry {
    u16 pid;
    int type;
    Packet packet;

    bool operator==(const Entry&) const = default;
  };
  struct Port {
    bool locked = false;
    std::vector<Entry> store;  // full at 512
    std::array<u32, 8> interval{300, 300, 300, 300, 300, 300, 300, 300};
    int locks = 0;

    std::size_t count(int type, int pid = -1) const {
      std::size_t n = 0;
      for (const Entry& e : store) n += (e.type == type && (pid < 0 || e.pid == pid)) ? 1 : 0;
      return n;
    }
  };

  std::array<Port, 2> ports;
  std::array<Port, 2> saved;  // what a restart would find
  int saves = 0;
  std::map<u16, Bytes> variables;  // by id: the kind and then the value, as a get's reply carries them
  std::vector<Request> log;        // every request that was carried out

  Reply handle(const Request& r) {
    log.push_back(r);
    Reply reply = client::replyTo(r);
    if (r.length != r.data.size())
      reply.result = 22;
    else if (r.slot >= 6 || r.port >= 2)
      reply.result = 18;
    else if (r.slot != 0)
      reply.result = 21;
    else if (r.operation == client::Operation::kGetVariable || r.operation == client::Operation::kSetVariable)
      reply.result = variable(r, reply.data);
    else if (r.operation == client::Operation::kRead)
      reply.result = read(ports[r.port], r, reply.data);
    else
      reply.result = write(ports[r.port], r);
    return reply;
  }

 private:
  static int typeOf(u8 tableId) {
    static const std::map<u8, int> kTypes = {{0x00, 0}, {0x02, 1}, {0x42, 2}, {0x46, 3},
                                             {0x40, 4}, {0x41, 5}, {0x4A, 6}, {0x01, 7}};
    const auto found = kTypes.find(tableId);
    return found == kTypes.end() ? 255 : found->second;
  }

  u32 variable(const Request& r, Bytes& out) {
    const auto found = variables.find(r.variable);
    if (found == variables.end()) return 0x104;
    if (r.operation == client::Operation::kGetVariable) {
      out = found->second;
      return 0;
    }
    if (r.data.size() != 4) return 22;
    std::copy(r.data.begin(), r.data.end(), found->second.begin() + 1);
    return 0;
  }

  static u32 read(const Port& port, const Request& r, Bytes& out) {
    const auto& in = r.data;
    switch (r.variable) {
      case 0x3101:
        if (!in.empty()) return 22;
        out = {0, 0, 0, static_cast<u8>(port.locked)};
        return 0;
      case 0x3102:
        return in.size() == 8 ? readPackets(port, in, out) : 22;
      case 0x3201: {
        if (in.size() != 4) return 22;
        const int type = typeOf(in[0]);
        if (type > 7) return 9;
        out.assign(12, 0);
        out[0] = in[0];
        wire::put32(&out[4], port.interval[static_cast<std::size_t>(type)]);
        wire::put32(&out[8], static_cast<u32>(port.count(type)));
        return 0;
      }
      default:
        return 2;
    }
  }

  static u32 readPackets(const Port& port, const Bytes& in, Bytes& out) {
    const u16 pid = wire::get16(in.data());
    const int type = typeOf(in[2]);
    const std::size_t start = in[7];
    const std::size_t count = type > 7 ? 0 : port.count(type, type == 1 ? pid : -1);
    out.assign(16, 0);
    wire::put16(out.data(), pid);
    out[2] = in[2];
    wire::put32(&out[4], static_cast<u32>(count));
    wire::put32(&out[8], static_cast<u32>(start));
    std::size_t position = 0;
    for (const Entry& e : port.store) {
      if (e.type != type || e.pid != pid || out[12] == 7) continue;
      if (position++ < start) continue;
      out.insert(out.end(), e.packet.begin(), e.packet.end());
      ++out[12];
    }
    return 0;
  }

  u32 write(Port& port, const Request& r) {
    const auto& in = r.data;
    switch (r.variable) {
      case 0x3101:
        if (in.size() != 4) return 22;
        setLock(port, wire::get32(in.data()) != 0);
        return 0;
      case 0x3102:
        return in.size() >= 16 && in.size() == 16u + 188u * in[12] ? store(port, in) : 22;
      case 0x3201: {
        if (in.size() != 12) return 22;
        const int type = typeOf(in[0]);
        if (type > 7) return 0;
        port.interval[static_cast<std::size_t>(type)] = wire::get32(&in[4]) & 0xFFFF;
        if (r.port == 1 && type == 7) save();
        return 0;
      }
      default:
        return 2;
    }
  }

  void setLock(Port& port, bool lock) {
    if (lock == port.locked) return;
    port.locked = lock;
    if (lock) {
      port.store.clear();
      ++port.locks;
    } else {
      save();
    }
  }

  static u32 store(Port& port, const Bytes& in) {
    for (std::size_t i = 0; i < in[12]; ++i) {
      if (port.store.size() == 512) return 1;
      if (typeOf(in[2]) > 7) return 3;
      Entry e{.pid = wire::get16(in.data()), .type = typeOf(in[2]), .packet = {}};
      std::copy_n(in.begin() + static_cast<std::ptrdiff_t>(16 + 188 * i), 188, e.packet.begin());
      port.store.push_back(e);
    }
    return 0;
  }

  void save() {
    saved = ports;
    ++saves;
  }
};

using FakeLink = FakeLinkTo<FakeCard>;

}  // namespace test
