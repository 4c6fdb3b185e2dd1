// A channel's PSI tables, which are replaced as a whole under a lock. Called by the back end (ts/qamBack.h),
// whose task must have a lower priority than the send tasks (212), so that their queues are empty when a lock
// erases the store.
#pragma once

#include "card/QamCardPara.h"
#include "ts/qamRecords.h"

extern u8 qam_psi_lock_status[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];  // 1: locked

extern "C" {

// The PsiType of a section's table_id (EN 300 468, ISO/IEC 13818-1); 255 for tables that the card does not
// carry.
u8 TableidToPsiType(u8 table_id);

// Not 0 locks: the store is erased and the channel's carousel stops. 0 unlocks: record saved, lists rebuilt,
// carousel started. A second lock, or an unlock without a lock, changes nothing. Always 0.
int QamPsiSetLock(u8 slotNo, u8 port, QamCardPara* ptr, u32 lock_switch);

// Appends a chunk to the store. 0, 1 if the store is full, 3 if the table_id has no type. `v` must have
// `this_num` packets; this is not checked.
int QamSavePsiPkt(u8 port, QamCardPara* ptr, const set_psi_pkt* v);

// Number of stored packets of a table on a PID.
u16 QamGetPsiPktNumSamePidTid(u8 port, u16 pid, u8 table_id, QamCardPara* ptr);
}
