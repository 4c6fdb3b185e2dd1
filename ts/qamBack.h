// The card's part of the management back end: PID map and PSI tables, each replaced as a whole under a lock;
// the variables with which management software accesses them; the search for packets of a PID. Called by the
// chassis's back-end task, one request at a time; its priority must be lower than the send tasks' (212), so
// that their queues are empty when a lock erases the store.
#pragma once

#include "card/QamCardPara.h"
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
extern qamSearchPSI_t qamSearchPSI[MAX_BOARD_NUM];

// The PsiType of a section's table_id (EN 300 468, ISO/IEC 13818-1); 255 for tables that the card does not
// carry.
u8 TableidToPsiType(u8 table_id);

// Sends the channel's whole map to the chassis's router, all 256 positions. Always 0. Start-up and unlock.
int QamSetPidMap(u8 slotNo, u8 port, QamCardPara* ptr);

// Not 0 locks: the map of the record is cleared, the router keeps its map. 0 unlocks: map sorted by source,
// record saved, router programmed. A second lock, or an unlock without a lock, changes nothing. Always 0.
int QamPidMapSetLock(u8 slotNo, u8 port, QamCardPara* ptr, u32 lock_switch);

// Stores a chunk of the map. 0: stored, or dropped because it is outside the announced range; 1: more than
// 256 entries announced; 3: a source slot or port that does not exist; 21: no card in a source slot. Entries
// before the bad one are stored.
int QamSavePidMap(u8 port, QamCardPara* ptr, const set_pid_map_t* v);

// Fills a chunk with the map's entries from `StartPos` on. Always 0.
int QamGetPidMap(u8 port, u32 StartPos, QamCardPara* ptr, set_pid_map_t* v);

// Not 0 locks: the store is erased and the channel's carousel stops. 0 unlocks: record saved, lists rebuilt,
// carousel started. A second lock, or an unlock without a lock, changes nothing. Always 0.
int QamPsiSetLock(u8 slotNo, u8 port, QamCardPara* ptr, u32 lock_switch);

// Appends a chunk to the store. 0, 1 if the store is full, 3 if the table_id has no type. `v` must have
// `this_num` packets; this is not checked.
int QamSavePsiPkt(u8 port, QamCardPara* ptr, const set_psi_pkt* v);

// Number of stored packets of a table on a PID.
u16 QamGetPsiPktNumSamePidTid(u8 port, u16 pid, u8 table_id, QamCardPara* ptr);

// Registers the variables of both channels. Start-up, through the descriptor.
extern "C" void qamBackInit(u8 slotNo);

// Read and write routines of the variables; a result of ts/qamRecords.h. `var` of a read takes up to 1436
// bytes.
int qam_ord(chassis::bc_vhdr_t* pv, void* var);
int qam_owr(chassis::bc_vhdr_t* pv, void* var);

// Starts (`isSearch` not 0) or stops the slot's search for packets of a PID and table. Another PID or table
// drops the captured packets; the same one again changes nothing. Always 0.
extern "C" int qamSetTSPID(u8 slotNo, u8 port, u16 pid, u8 tableId, u8 isSearch);

// Copies the next captured packet to `pkt_buf`, 188 bytes; -1 if there is none. Never waits. There is one
// search per slot, for all ports.
extern "C" int qamGetTsPidResult(u8 slotNo, u8 port, u8* pkt_buf);
