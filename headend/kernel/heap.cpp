#include "headend/kernel/heap.h"

#include <cstdlib>
#include <cstring>

namespace headend {
namespace {

// Each block's size is stored before it; the header's length keeps the block aligned for any type.
constexpr std::size_t kHeader = alignof(std::max_align_t) > sizeof(std::size_t) ? alignof(std::max_align_t)
                                                                                : sizeof(std::size_t);

}  // namespace

void* Heap::allocate(std::size_t size) {
  if (size > limit_ - used_) {
    ++failures_;
    return nullptr;
  }
  auto* raw = static_cast<char*>(std::malloc(kHeader + size));
  if (raw == nullptr) return nullptr;
  std::memcpy(raw, &size, sizeof size);
  std::memset(raw + kHeader, fill_, size);
  used_ += size;
  return raw + kHeader;
}

void Heap::release(void* block) {
  if (block == nullptr) return;
  char* raw = static_cast<char*>(block) - kHeader;
  std::size_t size = 0;
  std::memcpy(&size, raw, sizeof size);
  used_ -= size;
  std::free(raw);
}

}  // namespace headend
