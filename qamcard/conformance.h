// The test for the other side: checks of the services that a chassis provides to the module, for the
// chassis's own board. It is a library of its own, `qamcard_conformance`. docs/porting.md has what it prints.
#pragma once

#include "qamcard/types.h"

#ifdef __cplusplus
extern "C" {
#endif

// Runs all checks, prints PASS, FAIL or SKIP for each with `DebugPrint`, and returns how many failed. The
// card of the slot (0..5) has been started; no table is loaded, no key is pressed, and no other task saves
// its record or is busy. Tasks only, one at a time. A task of a priority from 213 to 224 can also end a check
// that hangs in a busy loop. Such a check's task remains; each call leaves some queues and ended tasks
// behind.
int qamConformance(u8 slotNo);

// Calls `routine` once in interrupt context, at once or within 100 ticks of the system clock. A chassis that
// can do this sets it before the call; null: the check of what an interrupt may do is skipped.
extern void (*qamConformanceInterrupt)(void (*routine)(void));

#ifdef __cplusplus
}
#endif
