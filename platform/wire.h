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

template <class Number, Number (*get)(const u8*), void (*put)(u8*, Number)>
class Field {
 public:
  Field& operator=(Number value) {
    put(bytes_, value);
    return *this;
  }
  operator Number() const { return get(bytes_); }  // NOLINT(google-explicit-constructor)

 private:
  u8 bytes_[sizeof(Number)];
};
using U16 = Field<u16, get16, put16>;
using U32 = Field<u32, get32, put32>;

static_assert(sizeof(U16) == 2 && alignof(U16) == 1 && sizeof(U32) == 4 && alignof(U32) == 1);

}  // namespace wire
