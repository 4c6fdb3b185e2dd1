// The card's side of the management back end: PSI tables replaced as a whole under a lock, and the variables
// by which management software reaches them. Called by the chassis's back-end task, one request at a time;
// the task's priority must be below the send tasks' (212), so that their queues are empty when a lock erases
// the store.
#pragma once

#include "card/QamCardPara.h"
#include "platform/backend.h"
#include "platform/wire.h"

inline constexpr u8 kPacketsPerChunk = 7;

// A chunk of PSI packets, all of one PID and one table.
struct set_psi_pkt {
  wire::U16 pid;
  u8 tableid;
  u8 reserved0;
  wire::U32 total_num;  // in a reply: stored packets of this PID and table
  wire::U32 start_pos;  // in a reply: position of the first packet that follows
  u8 this_num;
  u8 reserved1[3];
  u8 psi_pkt[kPacketsPerChunk][kTsPacketSize];
};
static_assert(offsetof(set_psi_pkt, pid) == 0 && offsetof(set_psi_pkt, tableid) == 2);
static_assert(offsetof(set_psi_pkt, total_num) == 4 && offsetof(set_psi_pkt, start_pos) == 8);
static_assert(offsetof(set_psi_pkt, this_num) == 12 && offsetof(set_psi_pkt, psi_pkt) == 16);
static_assert(sizeof(set_psi_pkt) == 1332);

struct get_psi_pkt {
  wire::U16 pid;
  u8 tableid;
  u8 reserved;
  wire::U32 start_pos;
};
static_assert(offsetof(get_psi_pkt, tableid) == 2 && offsetof(get_psi_pkt, start_pos) == 4);
static_assert(sizeof(get_psi_pkt) == 8);

struct set_psi_interval {
  u8 tableid;
  u8 reserved[3];
  wire::U32 time;     // ticks of the auxiliary clock, low 16 bits
  wire::U32 pkt_num;  // in a reply: stored packets of the type
};
static_assert(offsetof(set_psi_interval, time) == 4 && offsetof(set_psi_interval, pkt_num) == 8);
static_assert(sizeof(set_psi_interval) == 12);

struct get_psi_interval {
  u8 tableid;
  u8 reserved[3];
};
static_assert(sizeof(get_psi_interval) == 4);

// The PsiType of a section's table_id (EN 300 468, ISO/IEC 13818-1); 255 for tables that the card does not
// carry.
u8 TableidToPsiType(u8 table_id);

// Not 0 locks: the store is erased and the carousel of the channel halts. 0 unlocks: record saved, lists
// rebuilt, carousel started. A second lock, or an unlock without one, changes nothing. Always 0.
int QamPsiSetLock(u8 slotNo, u8 port, QamCardPara* ptr, u32 lock_switch);

// Appends a chunk to the store. 0, 1 when the store is full, 3 when the table_id has no type. `v` holds
// `this_num` packets, however many that are.
int QamSavePsiPkt(u8 port, QamCardPara* ptr, const set_psi_pkt* v);

// Stored packets of a table on a PID.
u16 QamGetPsiPktNumSamePidTid(u8 port, u16 pid, u8 table_id, QamCardPara* ptr);

// Registers the variables of both channels. Start-up, through the descriptor.
extern "C" void qamBackInit(u8 slotNo);

// Read and write routines of the variables. Result codes: 0 done, 1 store full, 2 unknown variable, 3 or 9
// unknown table_id, 18 no such slot or port, 21 no card, 22 wrong length. `var` of a read takes up to 1332
// bytes.
int qam_ord(chassis::bc_vhdr_t* pv, void* var);
int qam_owr(chassis::bc_vhdr_t* pv, void* var);
