// The tasks that checks start, and the ticks that they count. Priorities are below the module's send tasks
// (212) and a back-end task (220).
#pragma once

#include "platform/kernel.h"

namespace conformance {

inline constexpr int kHigher = 225;  // than the check's own
inline constexpr int kOwn = 230;
inline constexpr int kLower = 240;

int spawn(int priority, os::FUNCPTR entry, int argument1 = 0, int argument2 = 0);

// Counts ticks of the system clock, from a tick on and at most a thousand, by a task of priority kHigher that
// sleeps for one tick at a time: no service gives the time.
class TickCount {
 public:
  TickCount();
  int end();  // the ticks since the begin

 private:
  int number_;
};

// Sleeps until `*word` is not `value`, for at most a hundred ticks.
void waitWhile(const volatile int& word, int value);

}  // namespace conformance
