// The real-time kernel as the module's sources see it: the services of qamcard/kernel.h in namespace `os`,
// names for their values, and pauses.
#pragma once

#include "platform/types.h"
#include "qamcard/kernel.h"

namespace os {

inline constexpr int OK = 0;
inline constexpr int ERROR = -1;
inline constexpr int NO_WAIT = 0;
inline constexpr int WAIT_FOREVER = -1;
inline constexpr int MSG_PRI_NORMAL = 0;
inline constexpr int MSG_Q_PRIORITY = 1;  // waiting receivers are served by task priority

// Sleeps for whole ticks of the system clock: 10 ms are one tick at 100 Hz; shorter is no tick at all.
inline void sleepMilliseconds(int milliseconds) {
  taskDelay(sysClkRateGet() * milliseconds / 1000);
}

// A pause of `turns` turns of an empty loop, kept at every optimisation level.
#ifdef QAM_VIRTUAL_BUS
void countingLoop(u32 turns);
#else
inline void countingLoop(u32 turns) {
  for (u32 i = 0; i < turns; ++i) asm volatile("");
}
#endif

}  // namespace os
