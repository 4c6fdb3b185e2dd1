// Addresses stored in 32-bit words: a variable's text, a menu item's handler, a captured packet. On the
// controller a word is the address. A host with wider pointers keeps the low half and takes the rest from the
// program image: only objects with static storage and functions are allowed. Null stays 0.
#pragma once

#include "platform/types.h"

namespace os {

inline const char imageAnchor = 0;  // an object of the image, which is smaller than 2 GiB

inline u32 addressWord(const void* object) {
  return static_cast<u32>(reinterpret_cast<std::uintptr_t>(object));
}

// constexpr, so that on the controller a constant table with such words needs no constructor.
template <typename Result, typename... Arguments>
constexpr u32 addressWord(Result (*function)(Arguments...)) {
  return static_cast<u32>(reinterpret_cast<std::uintptr_t>(function));
}

template <typename T>
T* wordAddress(u32 word) {
  if (word == 0) return nullptr;
  const auto anchor = reinterpret_cast<std::uintptr_t>(&imageAnchor);
  const auto distance = static_cast<i32>(word - static_cast<u32>(anchor));
  const std::uintptr_t address = anchor + static_cast<std::uintptr_t>(std::intptr_t{distance});
  return reinterpret_cast<T*>(address);  // NOLINT(performance-no-int-to-ptr)
}

}  // namespace os
