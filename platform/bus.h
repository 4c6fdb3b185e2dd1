// The processor's bus. A `Reg16` is one 16-bit register of a device: exactly two bytes, read and written with
// single 16-bit accesses. On the card that is one store or load; with QAM_VIRTUAL_BUS (a build that runs the
// module on another machine) every access goes to the models behind `busRead16` and `busWrite16`, in order.
// With QAM_TRAPPED_BUS beside it the accesses are those of the card again, to memory that the machine guards.
// Any task may use a register; an interrupt routine of this module never does.
#pragma once

#include "platform/types.h"

namespace os {

#if defined(QAM_VIRTUAL_BUS) && !defined(QAM_TRAPPED_BUS)
u16 busRead16(const volatile void* reg);
void busWrite16(volatile void* reg, u16 value);
#else
inline u16 busRead16(const volatile void* reg) {
  return *static_cast<const volatile u16*>(reg);
}
inline void busWrite16(volatile void* reg, u16 value) {
  *static_cast<volatile u16*>(reg) = value;
}
#endif

#ifdef QAM_VIRTUAL_BUS
// The pointer that the models use for the bus address `address`; null if no device is there.
void* busAddress(u32 address);
#else
inline void* busAddress(u32 address) {
  return reinterpret_cast<void*>(std::uintptr_t{address});  // NOLINT(performance-no-int-to-ptr)
}
#endif

}  // namespace os

class Reg16 {
 public:
  Reg16() = default;
  Reg16(const Reg16&) = delete;
  Reg16& operator=(const Reg16&) = delete;
  ~Reg16() = default;

  Reg16& operator=(u16 value) {
    os::busWrite16(&cell_, value);
    return *this;
  }
  // NOLINTNEXTLINE(google-explicit-constructor): same code as on the card, `if (fpga->version == 7)`
  operator u16() const { return os::busRead16(&cell_); }

 private:
  u16 cell_;
};
static_assert(sizeof(Reg16) == 2 && alignof(Reg16) == 2);
