// Bytes in datagrams or files.
#pragma once

#include <algorithm>
#include <span>
#include <vector>

#include "platform/wire.h"

namespace base {

using Bytes = std::vector<u8>;

inline void append(Bytes& bytes, std::span<const u8> more) {
  bytes.insert(bytes.end(), more.begin(), more.end());
}
// Big-endian.
inline void append16(Bytes& bytes, u16 value) {
  bytes.resize(bytes.size() + sizeof value);
  wire::put16(&bytes[bytes.size() - sizeof value], value);
}
inline void append32(Bytes& bytes, u32 value) {
  bytes.resize(bytes.size() + sizeof value);
  wire::put32(&bytes[bytes.size() - sizeof value], value);
}

// A record without padding, or the first `size` bytes of it.
template <typename Record>
Bytes bytesOf(const Record& record, std::size_t size = sizeof(Record)) {
  const auto* first = reinterpret_cast<const u8*>(&record);
  return {first, first + size};
}
// A record from the available bytes; the rest is 0.
template <typename Record>
Record recordOf(std::span<const u8> bytes) {
  Record record{};
  std::copy_n(bytes.begin(), std::min(sizeof record, bytes.size()), reinterpret_cast<u8*>(&record));
  return record;
}

}  // namespace base
