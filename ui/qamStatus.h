// What the card itself tells the chassis's alarm list: an input lost, by channel; a card too hot; an output
// with more packets than it can send. And a task that kicks the watchdog.
#pragma once

#include "platform/types.h"

extern "C" {

// One look at the conditions of the slot's card, `statusCheck` of the descriptor; says to the alarm list what
// has changed. Started slots only; the chassis's status task calls it periodically, at a period of its own.
// It reads a sensor: other tasks stand still for some milliseconds.
void qamStatusCheck(u8 slotNo);

// Prepares a slot for status passes: nothing to do for this kind of card. 0.
int qam_create_status(u8 slotNo);

// Starts the watchdog's task; nothing in the module calls this, a chassis or a debug shell may. The second is
// that task, which does not return.
void taskDQam();
void taskDQamSysCheck();
}
