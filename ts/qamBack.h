// The card's part of the management back end: the variables with which management software accesses PID map
// (ts/qamPidMap.h) and PSI tables (ts/qamPsi.h). Called by the chassis's back-end task, one request at a
// time. The search for packets of a PID is in qamcard/qamcard.h.
#pragma once

#include "platform/backend.h"
#include "platform/chassis.h"
#include "platform/kernel.h"
#include "qamcard/qamcard.h"
#include "ts/qamRecords.h"

static_assert(kReplyBufferSize == chassis::QAM_REPLY_SIZE);

extern "C" {

// Registers the variables of both channels. `Qam_Init` calls it; it is not for the chassis.
void qamBackInit(u8 slotNo);

// Read and write routines of the variables; a result of ts/qamRecords.h. `var` of a read has
// kReplyBufferSize bytes.
int qam_ord(chassis::bc_vhdr_t* pv, void* var);
int qam_owr(chassis::bc_vhdr_t* pv, void* var);
}
