// Transport packets for the headend's tests: built and read bit by bit, not with the headend's own code; and
// a sink that keeps what leaves an output.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "headend/hardware/packet_sink.h"
#include "headend/kernel/kernel.h"
#include "tests/headend/scratch.h"

namespace test {

using headend::kSecond;
using headend::Nanos;
using u64 = std::uint64_t;

inline constexpr u64 kPcrWrap = (u64{1} << 33) * 300;

inline u64 bits(std::span<const u8> bytes, std::size_t from, std::size_t count) {
  u64 value = 0;
  for (std::size_t i = from; i < from + count; ++i) value = value << 1 | (bytes[i / 8] >> (7 - i % 8) & 1);
  return value;
}
inline void put(std::span<u8> bytes, std::size_t from, std::size_t count, u64 value) {
  for (std::size_t i = from + count; i-- > from; value >>= 1) {
    const auto mask = static_cast<u8>(0x80 >> i % 8);
    bytes[i / 8] = static_cast<u8>((bytes[i / 8] & ~mask) | ((value & 1) != 0 ? mask : 0));
  }
}

inline u64 pcrIn(std::span<const u8> p) {
  return bits(p, 48, 33) * 300 + bits(p, 87, 9);
}
// A packet's number, by which a test knows it again.
inline u64 numberIn(std::span<const u8> p) {
  return bits(p, 184 * 8, 32);
}

inline void putPcr(std::span<u8> p, u64 ticks) {
  put(p, 48, 33, ticks / 300);
  put(p, 81, 15, 0x3F << 9 | ticks % 300);
}

struct PacketFields {
  u64 pid = 0x100;
  u64 counter = 0;
  u64 number = 0;
  std::optional<u64> pcr = std::nullopt;
};

// A packet with payload.
inline Bytes packet(const PacketFields& fields) {
  Bytes p(188, 0xAA);
  put(p, 0, 32, 0x47000010 | fields.pid << 8 | (fields.counter & 15));
  put(p, 184 * 8, 32, fields.number);
  if (fields.pcr) {
    put(p, 26, 1, 1);
    put(p, 32, 16, 0x0710);
    putPcr(p, *fields.pcr);
  }
  return p;
}

// By its place in the stream; null packets are counted and not kept.
struct PacketKeeper final : headend::PacketSink {
  void packet(std::span<const u8> p) override { kept.emplace(places++, Bytes(p.begin(), p.end())); }
  void nullPackets(u64 count) override { places += count; }
  void flush() override {}
  const std::string& error() const override { return none; }

  std::map<u64, Bytes> kept;
  u64 places = 0;
  std::string none;
};

}  // namespace test
