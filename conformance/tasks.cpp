// Tasks, priorities, locks and delays.
#include "conformance/checks.h"
#include "conformance/helpers.h"

namespace conformance {
namespace {

volatile int arguments[10];
volatile int mark;
Seen* volatile order;

int storeArguments(int a, int b, int c, int d, int e, int f, int g, int h, int i, int j) {
  const int values[] = {a, b, c, d, e, f, g, h, i, j};
  for (int n = 0; n < 10; ++n) arguments[n] = values[n];
  return 0;
}

int setMark(int, int, int, int, int, int, int, int, int, int) {
  mark = 1;
  return 0;
}

int appendLetter(int letter, int, int, int, int, int, int, int, int, int) {
  const char text[] = {static_cast<char>(letter), 0};
  *order << text;
  return 0;
}

// Starts a task of higher priority, which sets the mark.
int markOf(int priority) {
  mark = 0;
  spawn(priority, setMark);
  return mark;
}

}  // namespace

void checkTaskArguments(Seen& seen, u8 /*slotNo*/) {
  os::taskSpawn("tConformance", kHigher, 0, 4096, storeArguments, 1, -2, 3, 4, 5, 6, 7, 8, 9, 0x7FFFFFFF);
  os::taskDelay(1);
  for (const volatile int& each : arguments) seen.next() << each;
}

void checkPriorities(Seen& seen, u8 /*slotNo*/) {
  order = &seen;
  spawn(kLower, appendLetter, 'L');
  spawn(kHigher, appendLetter, 'H');
  seen << "C";
  os::taskDelay(2);
}

void checkLock(Seen& seen, u8 /*slotNo*/) {
  os::taskLock();
  os::taskLock();
  seen << markOf(kHigher);
  os::taskUnlock();
  seen << mark;
  os::taskUnlock();
  seen << mark << ", ";

  os::taskLock();
  seen << markOf(kHigher);
  os::taskDelay(1);
  seen << mark << ", " << markOf(kHigher);
  os::taskUnlock();
  seen << mark;
}

void checkDelay(Seen& seen, u8 /*slotNo*/) {
  constexpr int kTicks = 10;
  TickCount count;
  os::taskDelay(kTicks);
  seen.addTicks(count.end(), kTicks);
}

void checkYield(Seen& seen, u8 /*slotNo*/) {
  markOf(kOwn);
  os::taskDelay(0);
  seen << mark;
}

void checkClockRate(Seen& seen, u8 /*slotNo*/) {
  constexpr int kLeast = 100;
  const int rate = os::sysClkRateGet();
  if (rate >= kLeast)
    seen << "at least 100";
  else
    seen << rate;
}

}  // namespace conformance
