// The chassis's heap: host memory with a limit, filled with one byte value, because memory on a card has its
// previous contents.
#pragma once

#include <cstdlib>
#include <cstring>
#include <functional>
#include <unordered_map>

#include "platform/types.h"

namespace headend {

class Heap {
 public:
  Heap(std::size_t limit, u8 fill) : limit_(limit), fill_(fill) {}

  // Null if the limit would be exceeded.
  void* allocate(std::size_t size) {
    void* block = size > limit_ - used_ || !allows(size) ? nullptr : std::malloc(size);
    if (block == nullptr) {
      ++failures_;
      return nullptr;
    }
    std::memset(block, fill_, size);
    sizes_[block] = size;
    used_ += size;
    return block;
  }

  void release(void* block) {  // null is ignored
    if (const auto size = sizes_.extract(block)) {
      used_ -= size.mapped();
      std::free(block);
    }
  }

  // Whether there is memory below the limit: a fault can take it.
  std::function<bool(std::size_t size)> allows = [](std::size_t /*size*/) { return true; };

  std::size_t used() const { return used_; }
  std::size_t failures() const { return failures_; }

 private:
  std::size_t limit_;
  u8 fill_;
  std::unordered_map<void*, std::size_t> sizes_;
  std::size_t used_ = 0;
  std::size_t failures_ = 0;
};

}  // namespace headend
