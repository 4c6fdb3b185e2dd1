#include "headend/hardware/bus.h"

#include <fmt/format.h>
#include <sys/mman.h>

#include <algorithm>
#include <new>

namespace headend {

bool MainBoard::overflows(int slot, int port, Nanos now) {
  Multiplexer* output = outputs_.at(outputNumber(slot, port));
  if (output == nullptr) return false;
  output->advance(now);
  const std::optional<Nanos> last = output->lastDrop();
  return last && now - *last < kOverflowHold;
}

u16 MainBoard::read(u32 /*offset*/, Nanos now) {
  unsigned bits = 0;
  for (int slot = 0; slot < MAX_BOARD_NUM; ++slot) {
    for (int port = 0; port < MAX_QAM_OUT_NUM; ++port) {
      if (overflows(slot, port, now)) bits |= 1U << outputNumber(slot, port);
    }
  }
  return static_cast<u16>(bits);
}

Bus::Bus(Violations& violations) : violations_(violations) {
  void* mapped = mmap(nullptr, kMapped, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  base_ = static_cast<char*>(mapped);
  slotOfWindow_.fill(-1);
  slotOfWindow_[0] = 0;
  for (int slot = 1; slot < MAX_BOARD_NUM; ++slot) slotOfWindow_[std::size_t{1} << (slot - 1)] = slot;
}

Bus::~Bus() {
  munmap(base_, kMapped);
}

void* Bus::hostAddress(u32 busAddress) const {
  if (busAddress < kFirstWindow || busAddress - kFirstWindow >= kWindows) return nullptr;
  return base_ + (busAddress - kFirstWindow);
}

std::string Bus::registerName(const volatile void* reg) const {
  const Place place = find(reg);
  if (place.device == nullptr) return "an address without a device";
  if (place.slot < 0) return fmt::format("main board {}", place.device->registerName(place.offset));
  return fmt::format("slot {} {}", place.slot + 1, place.device->registerName(place.offset));
}

void Bus::logAccess(const Place& place, char direction, u16 value, Nanos now) {
  const std::string_view name = place.device == nullptr ? "nobody" : place.device->registerName(place.offset);
  std::array<char, 96> line{};  // formatted in place: this runs at every access
  const auto end = fmt::format_to_n(line.data(), line.size(), "{} {} {} {} {:04X} {}\n", now, place.slot + 1,
                                    direction, place.offset, value, name);
  std::fwrite(line.data(), 1, std::min(end.size, line.size()), log_);  // a full disk is reported at the end
}

}  // namespace headend
