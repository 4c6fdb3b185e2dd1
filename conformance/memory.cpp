// The heap.
#include "platform/memory.h"

#include <cstdint>

#include "conformance/checks.h"

namespace conformance {

void checkNoMemory(Seen& seen, u8 /*slotNo*/) {
  const volatile std::size_t impossible = SIZE_MAX - 0xFFFF;  // volatile: a compiler warns of a constant
  void* block = os::malloc(impossible);
  seen << (block == nullptr ? "null" : "a block");
  if (block != nullptr) os::free(block);
}

void checkAlignment(Seen& seen, u8 /*slotNo*/) {
  constexpr std::uintptr_t kAlignment = 8;
  void* blocks[4];
  std::size_t size = 1;
  for (void*& block : blocks) {
    block = os::malloc(size);
    seen.next() << static_cast<int>(reinterpret_cast<std::uintptr_t>(block) % kAlignment);
    size = size * 3 + 1;
  }
  for (void* block : blocks) os::free(block);
}

void checkFreeNull(Seen& seen, u8 /*slotNo*/) {
  os::free(nullptr);
  seen << "returned";
}

}  // namespace conformance
