// The card's part of the management back end: the variables with which management software accesses PID map
// (ts/qamPidMap.h) and PSI tables (ts/qamPsi.h), and the search for packets of a PID. Called by the chassis's
// back-end task, one request at a time.
#pragma once

#include "platform/backend.h"
#include "platform/chassis.h"
#include "platform/kernel.h"
#include "ts/qamRecords.h"

// Queues of captured packets, one per slot: messages of four bytes, the packet's address as a word
// (platform/address_word.h). The chassis creates and fills them; null until then.
extern os::MSG_Q_ID qamTsReadQID[MAX_BOARD_NUM];

struct qamSearchPSI_t {
  u8 isSearch;
  u8 tableId;
  u16 pid;
};
static_assert(sizeof(qamSearchPSI_t) == 4);
extern qamSearchPSI_t qamSearchPSI[MAX_BOARD_NUM];

extern "C" {

// Registers the variables of both channels. Start-up, through the descriptor.
void qamBackInit(u8 slotNo);

// Read and write routines of the variables; a result of ts/qamRecords.h. `var` of a read has
// kReplyBufferSize bytes.
int qam_ord(chassis::bc_vhdr_t* pv, void* var);
int qam_owr(chassis::bc_vhdr_t* pv, void* var);

// Starts (`isSearch` not 0) or stops the slot's search for packets of a PID and table. Another PID or table
// drops the captured packets; the same one again changes nothing. Always 0.
int qamSetTSPID(u8 slotNo, u8 port, u16 pid, u8 tableId, u8 isSearch);

// Copies the next captured packet to `pkt_buf`, 188 bytes; -1 if there is none. Never waits. There is one
// search per slot, for all ports.
int qamGetTsPidResult(u8 slotNo, u8 port, u8* pkt_buf);
}
