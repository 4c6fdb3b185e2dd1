// The chassis's heap: host memory with a limit, filled with one byte value, because memory on a card has its
// previous contents.
#pragma once

#include <cstddef>

#include "platform/types.h"

namespace headend {

class Heap {
 public:
  Heap(std::size_t limit, u8 fill) : limit_(limit), fill_(fill) {}

  void* allocate(std::size_t size);  // null if the limit would be exceeded
  void release(void* block);         // null is ignored

  std::size_t used() const { return used_; }
  std::size_t failures() const { return failures_; }

 private:
  std::size_t limit_;
  u8 fill_;
  std::size_t used_ = 0;
  std::size_t failures_ = 0;
};

}  // namespace headend
