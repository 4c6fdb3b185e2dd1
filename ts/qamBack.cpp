#include "ts/qamBack.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "platform/check.h"
#include "ts/qamIntr.h"

namespace {

constexpr const char* kUnit = "qamBack";
constexpr u8 kNoType = 255;

enum Result : int {
  kDone = 0,
  kStoreFull = 1,
  kUnknownVariable = 2,
  kUnknownTable = 3,
  kUnknownTableRead = 9,
  kBadSlotOrPort = 18,
  kNoCard = 21,
  kBadLength = 22,
};

enum Variable : u16 {
  kPsiLock = 0x3101,
  kPsiPackets = 0x3102,
  kPsiInterval = 0x3201,
};

u8 qam_psi_lock_status[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];

constexpr chassis::bc_var qam_var[] = {
    {.vid = kPsiLock, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPsiPackets, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPsiInterval, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {},
};

// Only nine bits are compared: management software marks what it takes back with any PID that ends in ones.
bool isFree(const outPsiPkt_t& entry) {
  return (entry.pid & 0x1FF) == 0x1FF;
}

outPsiPkt_t* firstFree(u8 port, QamCardPara* ptr) {
  outPsiPkt_t* store = ptr->psiPkt[port];
  outPsiPkt_t* end = store + kPsiStoreSize;
  outPsiPkt_t* entry = std::find_if(store, end, isFree);
  return entry == end ? nullptr : entry;
}

// The PMTs of different programmes stand on different PIDs, so here the store itself must be counted.
u16 countPmtOnPid(u8 port, u16 pid, const QamCardPara* ptr) {
  u16 count = 0;
  for (const outPsiPkt_t& entry : ptr->psiPkt[port]) {
    if (entry.pid == pid && entry.psiType == PMT) ++count;
    if (entry.pid == 0xFFFF || entry.psiType == 0xFF) break;
  }
  return count;
}

// What the common prologue of a request finds.
struct Target {
  u8 slot;
  u8 port;
  QamCardPara* para;
};

int findTarget(const chassis::bc_vhdr_t& header, Target& target) {
  target.slot = static_cast<u8>(header.cardNo);
  target.port = static_cast<u8>(header.portNo);
  if (target.slot >= MAX_BOARD_NUM || target.port >= MAX_QAM_OUT_NUM) return kBadSlotOrPort;
  target.para = GetQamCardParaFromList(target.slot);
  return target.para == nullptr ? kNoCard : kDone;
}

// Replies are laid out over the caller's buffer; the header's length says how much of it travels.
template <class Record>
Record& emptyReply(void* var) {
  std::memset(var, 0, sizeof(Record));
  return *static_cast<Record*>(var);
}

int readLock(const Target& t, chassis::bc_vhdr_t* pv, void* var) {
  if (pv->vLength != 0) return kBadLength;
  emptyReply<wire::U32>(var) = qam_psi_lock_status[t.slot][t.port];
  pv->vLength = sizeof(wire::U32);
  return kDone;
}

int readPackets(const Target& t, chassis::bc_vhdr_t* pv, const void* data, void* var) {
  if (pv->vLength != sizeof(get_psi_pkt)) return kBadLength;
  const auto& request = *static_cast<const get_psi_pkt*>(data);
  const u16 pid = request.pid;
  const u8 tableId = request.tableid;
  // One byte, as long as management software pages through a table: it asks for no position beyond.
  const u8 start = static_cast<u8>(request.start_pos);

  const u8 type = TableidToPsiType(tableId);
  const u16 count = type < PSINUM ? QamGetPsiPktNumSamePidTid(t.port, pid, tableId, t.para) : u16{0};

  auto& reply = emptyReply<set_psi_pkt>(var);
  reply.pid = pid;
  reply.tableid = tableId;
  reply.total_num = count;
  reply.start_pos = start;
  if (count != 0 && start <= count) {
    reply.this_num = static_cast<u8>(std::min<int>(count - start, kPacketsPerChunk));
    const int end = start + reply.this_num;
    int number = 0;
    for (const outPsiPkt_t& entry : t.para->psiPkt[t.port]) {
      if (number == end) break;
      if (entry.pid != pid || entry.psiType != type) continue;
      if (number >= start) std::memcpy(reply.psi_pkt[number - start], entry.psiData, kTsPacketSize);
      ++number;
    }
  }
  pv->vLength = static_cast<u16>(offsetof(set_psi_pkt, psi_pkt) + kTsPacketSize * reply.this_num);
  return kDone;
}

int readInterval(const Target& t, chassis::bc_vhdr_t* pv, const void* data, void* var) {
  if (pv->vLength != sizeof(get_psi_interval)) return kBadLength;
  const u8 tableId = static_cast<const get_psi_interval*>(data)->tableid;
  const u8 type = TableidToPsiType(tableId);
  if (type >= PSINUM) return kUnknownTableRead;

  auto& reply = emptyReply<set_psi_interval>(var);
  reply.tableid = tableId;
  reply.time = t.para->Interval[t.port][type];
  reply.pkt_num = t.para->pktNum[t.port][type];
  pv->vLength = sizeof reply;
  return kDone;
}

int writeLock(const Target& t, const chassis::bc_vhdr_t& header, const void* var) {
  if (header.vLength != sizeof(wire::U32)) return kBadLength;
  return QamPsiSetLock(t.slot, t.port, t.para, *static_cast<const wire::U32*>(var));
}

int writePackets(const Target& t, const chassis::bc_vhdr_t& header, const void* var) {
  const auto* chunk = static_cast<const set_psi_pkt*>(var);
  if (header.vLength != offsetof(set_psi_pkt, psi_pkt) + kTsPacketSize * chunk->this_num) return kBadLength;
  return QamSavePsiPkt(t.port, t.para, chunk);
}

int writeInterval(const Target& t, const chassis::bc_vhdr_t& header, const void* var) {
  if (header.vLength != sizeof(set_psi_interval)) return kBadLength;
  const auto& request = *static_cast<const set_psi_interval*>(var);
  const u8 type = TableidToPsiType(request.tableid);
  if (type >= PSINUM) return kDone;
  t.para->Interval[t.port][type] = static_cast<u16>(request.time);
  // Management software writes the intervals of both ports, type by type: this one is the last, and one save
  // does for all.
  if (t.port == 1 && type == CAT) chassis::para_save(t.slot);
  return kDone;
}

}  // namespace

u8 TableidToPsiType(u8 table_id) {
  switch (table_id) {
    case 0x00:
      return PAT;
    case 0x01:
      return CAT;
    case 0x02:
      return PMT;
    case 0x40:
      return NIT_C;
    case 0x41:
      return NIT_O;
    case 0x42:
      return SDT_C;
    case 0x46:
      return SDT_O;
    case 0x4A:
      return BAT;
    default:
      return kNoType;
  }
}

int QamPsiSetLock(u8 slotNo, u8 port, QamCardPara* ptr, u32 lock_switch) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo < MAX_BOARD_NUM", kUnit);
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);

  u8& locked = qam_psi_lock_status[slotNo][port];
  if (lock_switch != 0) {
    if (locked == 1) return 0;
    locked = 1;
    qam_is_setting_psi[slotNo][port] = 1;
    std::memset(ptr->pktNum[port], 0, sizeof ptr->pktNum[port]);
    qam_set_default_psipkt(slotNo, port, ptr);
  } else {
    if (locked == 0) return 0;
    locked = 0;
    chassis::para_save(slotNo);
    QamSetPsiInterval(slotNo, port);
    qam_is_setting_psi[slotNo][port] = 0;  // last: the tick routine may walk the lists only when they stand
  }
  return 0;
}

int QamSavePsiPkt(u8 port, QamCardPara* ptr, const set_psi_pkt* v) {
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);

  const u16 pid = v->pid;
  const u8 type = TableidToPsiType(v->tableid);
  int result = kDone;
  // More than seven packets run on behind the record, as far as the chassis's buffer reaches.
  const u8* packet = reinterpret_cast<const u8*>(v) + offsetof(set_psi_pkt, psi_pkt);
  for (int i = 0; i < v->this_num; ++i, packet += kTsPacketSize) {
    outPsiPkt_t* entry = firstFree(port, ptr);
    if (entry == nullptr) return kStoreFull;
    if (type >= PSINUM) {
      result = kUnknownTable;
      continue;
    }
    entry->pid = pid;
    entry->psiType = type;
    std::memcpy(entry->psiData, packet, kTsPacketSize);
    ++ptr->pktNum[port][type];
  }
  return result;
}

u16 QamGetPsiPktNumSamePidTid(u8 port, u16 pid, u8 table_id, QamCardPara* ptr) {
  const u8 type = TableidToPsiType(table_id);
  switch (type) {
    case PMT:
      return countPmtOnPid(port, pid, ptr);
    case PAT:
      os::check(pid == 0, "pid == 0", kUnit);
      break;
    case CAT:
      os::check(pid == 1, "pid == 1", kUnit);
      break;
    case NIT_C:
    case NIT_O:
      os::check(pid == 0x10, "pid == 0x10", kUnit);
      break;
    case SDT_C:
    case SDT_O:
    case BAT:
      os::check(pid == 0x11, "pid == 0x11", kUnit);
      break;
    default:
      return 0;
  }
  return ptr->pktNum[port][type];
}

void qamBackInit(u8 slotNo) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo < MAX_BOARD_NUM", kUnit);
  for (u32 port = 0; port < MAX_QAM_OUT_NUM; ++port) {
    char text[40];
    std::snprintf(text, sizeof text, "OutVars of Slot%d port%u\n", slotNo, port);
    const u32 slotBase = u32{slotNo} << 24;
    chassis::bc_vars_register(slotBase | port << 16, slotBase | (port + 1) << 16, qam_var, text);
  }
}

int qam_ord(chassis::bc_vhdr_t* pv, void* var) {
  Target target{};
  if (const int result = findTarget(*pv, target); result != kDone) return result;
  const void* data = reinterpret_cast<const u8*>(pv) + 12 + pv->reLength;
  switch (pv->paraType) {
    case kPsiLock:
      return readLock(target, pv, var);
    case kPsiPackets:
      return readPackets(target, pv, data, var);
    case kPsiInterval:
      return readInterval(target, pv, data, var);
    default:
      return kUnknownVariable;
  }
}

int qam_owr(chassis::bc_vhdr_t* pv, void* var) {
  Target target{};
  if (const int result = findTarget(*pv, target); result != kDone) return result;
  switch (pv->paraType) {
    case kPsiLock:
      return writeLock(target, *pv, var);
    case kPsiPackets:
      return writePackets(target, *pv, var);
    case kPsiInterval:
      return writeInterval(target, *pv, var);
    default:
      return kUnknownVariable;
  }
}
