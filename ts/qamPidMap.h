// A channel's PID map, which is replaced as a whole under a lock. Called by the back end (ts/qamBack.h) and
// at start-up.
#pragma once

#include "card/QamCardPara.h"
#include "ts/qamRecords.h"

extern u8 qam_pidmap_lock_status[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];  // 1: locked

extern "C" {

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
}
