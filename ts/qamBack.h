// The card's side of the management back end: PID map and PSI tables, each replaced as a whole under a lock;
// the variables by which management software reaches them; the search for packets of a PID. Called by the
// chassis's back-end task, one request at a time; the task's priority must be below the send tasks' (212), so
// that their queues are empty when a lock erases the store.
#pragma once

#include "card/QamCardPara.h"
#include "platform/backend.h"
#include "platform/chassis.h"
#include "platform/kernel.h"
#include "platform/wire.h"

inline constexpr u8 kPacketsPerChunk = 7;
inline constexpr u32 kMapEntriesPerChunk = 89;

// One entry of a PID map. Type and programme numbers are management software's, stored and reported back.
struct pid_map_t {
  wire::U16 src_slot;
  wire::U16 type;
  wire::U32 src_port;
  wire::U16 src_prog_no;
  wire::U16 dst_prog_no;
  wire::U16 src_pid;
  wire::U16 dst_pid;
};
static_assert(offsetof(pid_map_t, type) == 2 && offsetof(pid_map_t, src_port) == 4);
static_assert(offsetof(pid_map_t, src_prog_no) == 8 && offsetof(pid_map_t, dst_prog_no) == 10);
static_assert(offsetof(pid_map_t, src_pid) == 12 && offsetof(pid_map_t, dst_pid) == 14);
static_assert(sizeof(pid_map_t) == 16);

// A chunk of a PID map.
struct set_pid_map_t {
  wire::U32 total_num;  // entries of the whole map
  wire::U32 start_pos;  // position of the first entry that follows
  wire::U32 this_num;
  pid_map_t pidmap[kMapEntriesPerChunk];
};
static_assert(offsetof(set_pid_map_t, start_pos) == 4 && offsetof(set_pid_map_t, this_num) == 8);
static_assert(offsetof(set_pid_map_t, pidmap) == 12 && sizeof(set_pid_map_t) == 1436);

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

// Records of the PID search. They travel between chassis and management software; no variable carries them.
struct ts_data_set {
  wire::U16 pid;
  u8 tableid;
  u8 status;  // not 0 begins a search, 0 ends it
};
static_assert(offsetof(ts_data_set, tableid) == 2 && sizeof(ts_data_set) == 4);

struct ts_data_rt {
  wire::U16 pid;
  u8 tableid;
  u8 nmuber;  // packets that follow; spelled as in the management software's own header
  u8 pkt[kPacketsPerChunk][kTsPacketSize];
};
static_assert(offsetof(ts_data_rt, nmuber) == 3 && offsetof(ts_data_rt, pkt) == 4);
static_assert(sizeof(ts_data_rt) == 1320);

// Queues of captured packets, a slot each: messages of four bytes, the packet's address as a word
// (platform/address_word.h). The chassis creates and fills them; nulls until then.
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

// Not 0 locks: the map of the record is emptied, the router keeps its own. 0 unlocks: map sorted by source,
// record saved, router programmed. A second lock, or an unlock without one, changes nothing. Always 0.
int QamPidMapSetLock(u8 slotNo, u8 port, QamCardPara* ptr, u32 lock_switch);

// Stores a chunk of the map. 0 stored, or dropped because it lies outside of what it announces; 1 more than
// 256 entries announced; 3 a source slot or port that does not exist, 21 no card in a source slot: entries
// before the bad one are stored.
int QamSavePidMap(u8 port, QamCardPara* ptr, const set_pid_map_t* v);

// Fills a chunk with the map's entries from `StartPos` on. Always 0.
int QamGetPidMap(u8 port, u32 StartPos, QamCardPara* ptr, set_pid_map_t* v);

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

// Read and write routines of the variables. Result codes: 0 done, 1 store full or map too long, 2 unknown
// variable, 3 unknown table_id or source, 9 unknown table_id of a read, 18 no such slot or port, 21 no card,
// 22 wrong length. `var` of a read takes up to 1436 bytes.
int qam_ord(chassis::bc_vhdr_t* pv, void* var);
int qam_owr(chassis::bc_vhdr_t* pv, void* var);

// Begins (`isSearch` not 0) or ends the slot's search for packets of a PID and table. Another PID or table
// drops what was captured; the same one again changes nothing. Always 0.
extern "C" int qamSetTSPID(u8 slotNo, u8 port, u16 pid, u8 tableId, u8 isSearch);

// Copies the next captured packet to `pkt_buf`, 188 bytes; -1 when there is none. Never waits. The search is
// one a slot, whatever the port.
extern "C" int qamGetTsPidResult(u8 slotNo, u8 port, u8* pkt_buf);
