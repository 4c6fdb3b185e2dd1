// Files of the chassis's flash, below "/tffs0". Reading, seeking and closing are the standard library's
// functions; only opening is a system function, because a host keeps the flash in a folder. Tasks only.
#pragma once

#include <cstdio>

namespace os {

#ifdef QAM_VIRTUAL_BUS
std::FILE* fopen(const char* path, const char* mode);
#else
inline std::FILE* fopen(const char* path, const char* mode) {
  return std::fopen(path, mode);
}
#endif

}  // namespace os
