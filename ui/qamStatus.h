// The card's reports to the chassis's alarm list: a lost input, by channel; a card too hot; an output with
// more packets than it can send. Also a task that kicks the watchdog.
#pragma once

#include "platform/types.h"
#include "qamcard/qamcard.h"

extern "C" {

// One check of the conditions of the slot's card, `statusCheck` of the descriptor; reports changes to the
// alarm list. Started slots only; the chassis's status task calls it periodically, with its own period. It
// reads a sensor: other tasks are stopped for some milliseconds.
void qamStatusCheck(u8 slotNo);

// Prepares a slot for status passes: nothing to do for this kind of card. 0.
int qam_create_status(u8 slotNo);

// The task that `taskDQam` starts; it does not return.
void taskDQamSysCheck();
}
