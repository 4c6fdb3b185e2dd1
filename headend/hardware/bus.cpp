#include "headend/hardware/bus.h"

#include <fmt/format.h>
#include <sys/mman.h>

#include <algorithm>
#include <new>

namespace headend {

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

void Bus::attach(int slot, CardFpga& card, ConfigPort& port) {
  cards_[static_cast<std::size_t>(slot)] = &card;
  ports_[static_cast<std::size_t>(slot)] = &port;
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
  const char* name = place.device == nullptr ? "nobody" : place.device->registerName(place.offset);
  std::array<char, 96> line{};  // formatted in place: this runs at every access
  const auto end = fmt::format_to_n(line.data(), line.size(), "{} {} {} {} {:04X} {}\n", now, place.slot + 1,
                                    direction, place.offset, value, name);
  std::fwrite(line.data(), 1, std::min(end.size, line.size()), log_);  // a full disk is reported at the end
}

}  // namespace headend
