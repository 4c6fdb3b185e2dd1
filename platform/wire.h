// Big-endian numbers of records in datagrams. `wire::U16` and `wire::U32` are fields of such records: bytes
// without alignment, so that a record can be placed over any buffer from the network.
#pragma once

#include "platform/types.h"

namespace wire {

inline u16 get16(const u8* p) {
  return static_cast<u16>(p[0] << 8 | p[1]);
}

inline u32 get32(const u8* p) {
  return static_cast<u32>(get16(p)) << 16 | get16(p + 2);
}

inline void put16(u8* p, u16 value) {
  p[0] = static_cast<u8>(value >> 8);
  p[1] = static_cast<u8>(value);
}

inline void put32(u8* p, u32 value) {
  put16(p, static_cast<u16>(value >> 16));
  put16(p + 2, static_cast<u16>(value));
}

class U16 {
 public:
  U16& operator=(u16 value) {
    put16(bytes_, value);
    return *this;
  }
  operator u16() const { return get16(bytes_); }  // NOLINT(google-explicit-constructor)

 private:
  u8 bytes_[2];
};

class U32 {
 public:
  U32& operator=(u32 value) {
    put32(bytes_, value);
    return *this;
  }
  operator u32() const { return get32(bytes_); }  // NOLINT(google-explicit-constructor)

 private:
  u8 bytes_[4];
};

static_assert(sizeof(U16) == 2 && alignof(U16) == 1 && sizeof(U32) == 4 && alignof(U32) == 1);

}  // namespace wire
