// The card's part of the heap. A host limits it, fills it with a byte value, and switches tasks at these
// calls. Tasks only; null if the heap is exhausted.
#pragma once

#include <cstdlib>

namespace os {

#ifdef QAM_VIRTUAL_BUS
void* malloc(std::size_t size);
void free(void* block);
#else
inline void* malloc(std::size_t size) {
  return std::malloc(size);
}
inline void free(void* block) {
  std::free(block);
}
#endif

}  // namespace os
