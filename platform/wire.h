// Big-endian fields of records that travel, read and written byte by byte: a buffer from the network is
// aligned to nothing.
#pragma once

#include "platform/types.h"

namespace wire {

inline u16 get16(const u8* p) { return static_cast<u16>(p[0] << 8 | p[1]); }

inline u32 get32(const u8* p) { return static_cast<u32>(get16(p)) << 16 | get16(p + 2); }

inline void put16(u8* p, u16 value) {
  p[0] = static_cast<u8>(value >> 8);
  p[1] = static_cast<u8>(value);
}

inline void put32(u8* p, u32 value) {
  put16(p, static_cast<u16>(value >> 16));
  put16(p + 2, static_cast<u16>(value));
}

}  // namespace wire
