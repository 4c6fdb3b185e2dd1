// The variables with which management software accesses a channel's PID map and PSI tables: their ids, their
// records, big-endian, and the results. Included by the card, the chassis and clients.
#pragma once

#include <algorithm>
#include <cstddef>

#include "platform/numbers.h"
#include "platform/wire.h"

namespace qam_back {

enum Variable : u16 {
  kPidMapLock = 0x2101,
  kPidMapChunk = 0x2102,
  kPsiLock = 0x3101,
  kPsiPackets = 0x3102,
  kPsiInterval = 0x3201,
};

// Results of a request.
inline constexpr int kDone = 0;
inline constexpr int kStoreFull = 1;   // of PSI packets
inline constexpr int kMapTooLong = 1;  // of a PID map
inline constexpr int kUnknownVariable = 2;
inline constexpr int kUnknownTable = 3;      // of PSI packets: the table_id has no type
inline constexpr int kBadSource = 3;         // of a PID map: a source slot or port that does not exist
inline constexpr int kUnknownTableRead = 9;  // of an interval
inline constexpr int kBadSlotOrPort = 18;
inline constexpr int kNoCard = 21;  // in the slot, or in a source slot of a PID map
inline constexpr int kBadLength = 22;

}  // namespace qam_back

inline constexpr u8 kPacketsPerChunk = 7;
inline constexpr u32 kMapEntriesPerChunk = 89;

// One entry of a PID map. Type and programme numbers are for management software: only stored and reported.
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

// Records of the PID search. They are sent between chassis and management software; no variable uses them.
struct ts_data_set {
  wire::U16 pid;
  u8 tableid;
  u8 status;  // not 0 starts a search, 0 stops it
};
static_assert(offsetof(ts_data_set, tableid) == 2 && sizeof(ts_data_set) == 4);

struct ts_data_rt_set {
  wire::U16 pid;
  u8 tableid;
  u8 reserved;
};
static_assert(offsetof(ts_data_rt_set, tableid) == 2 && sizeof(ts_data_rt_set) == 4);

struct ts_data_rt {
  wire::U16 pid;
  u8 tableid;
  u8 nmuber;  // packets that follow; same spelling as in the management software's header
  u8 pkt[kPacketsPerChunk][kTsPacketSize];
};
static_assert(offsetof(ts_data_rt, nmuber) == 3 && offsetof(ts_data_rt, pkt) == 4);
static_assert(sizeof(ts_data_rt) == 1320);

// The data of a write, and the request data of a read.
union set_u {
  u8 _buffer[1024];
  u8 _byte;
  wire::U16 _word;
  wire::U32 _dword;
  ts_data_set _ts_set;
  ts_data_rt_set _ts_rt_set;
  set_psi_pkt _psi_pkt_set;
  get_psi_pkt _psi_pkt_get_set;
  set_psi_interval _psi_interval_set;
  get_psi_interval _psi_interval_get_set;
};
static_assert(alignof(set_u) == 1 && sizeof(set_u) == sizeof(set_psi_pkt));

// The data of a reply to a read.
union ret_u {
  u8 _buffer[1024];
  u8 _byte;
  wire::U16 _word;
  wire::U32 _dword;
  ts_data_rt _ts_rt;
  set_psi_pkt _psi_pkt_get;
  set_psi_interval _psi_interval_get;
};
static_assert(alignof(ret_u) == 1 && sizeof(ret_u) == sizeof(set_psi_pkt));

// Bytes of the buffer that a chassis provides for the reply to a read: a chunk of a PID map is the largest.
inline constexpr std::size_t kReplyBufferSize = std::max(sizeof(ret_u), sizeof(set_pid_map_t));
