#include "ts/qamBack.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "card/QamFpga.h"
#include "platform/address_word.h"
#include "platform/check.h"
#include "ts/qamIntr.h"

namespace {

using namespace qam_back;  // NOLINT(google-build-using-namespace)

constexpr const char* kUnit = "qamBack";
constexpr u8 kNoType = 255;

u8 qam_pidmap_lock_status[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];
u8 qam_psi_lock_status[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];

constexpr chassis::bc_var qam_var[] = {
    {.vid = kPidMapLock, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPidMapChunk, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPsiLock, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPsiPackets, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPsiInterval, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {},
};

// ---- The PID map ----

// A parameter file may claim more than there is room for.
u32 mapSize(const QamCardPara& para, u8 port) {
  return std::min<u32>(para.pidMapNum[port], kPidMapSize);
}

// What the router compares with an arriving packet.
u32 sourceKey(const pidmap_t& entry) {
  return (entry.src_pid & 0x1FFFU) | u32{entry.src_port} << 13 | u32{entry.src_slotNo} << 17;
}

// The chassis's unit of programming.
struct RouterWord {
  u16 words[3];
};

RouterWord routerWord(const pidmap_t& entry) {
  constexpr unsigned kInUse = 0x20;
  const unsigned port = entry.src_port & 0x0FU;
  const unsigned word1 =
      kInUse | (entry.dst_pid & 0x3FFU) << 6 | (entry.src_slotNo & 0x0FU) << 1 | (port >> 3 & 1U);
  return {{static_cast<u16>((entry.src_pid & 0x1FFFU) | port << 13), static_cast<u16>(word1),
           static_cast<u16>(entry.dst_pid >> 10 & 7U)}};
}

constexpr RouterWord kUnusedPosition = {{0xFFFF, 0x001F, 0x0000}};

// Equal keys change places as they always have: which of two entries for one source comes first decides which
// one the router takes, so another sort would put another programme on the air.
void sortBySource(pidmap_t* map, u32 size) {
  for (u32 i = 0; i < size; ++i) {
    for (u32 j = i + 1; j < size; ++j) {
      if (sourceKey(map[i]) > sourceKey(map[j])) std::swap(map[i], map[j]);
    }
  }
}

int checkSource(const pid_map_t& entry) {
  if (entry.src_slot >= MAX_BOARD_NUM) return kBadSource;
  const chassis::card* source = chassis::GetCardPoint(static_cast<u8>(entry.src_slot));
  if (source == nullptr) return kNoCard;
  return entry.src_port < source->in_port_num ? kDone : kBadSource;
}

void store(const pid_map_t& from, pidmap_t& to) {
  to.src_pid = from.src_pid;
  to.src_port = static_cast<u8>(from.src_port);
  to.src_slotNo = static_cast<u8>(from.src_slot);
  to.dst_pid = from.dst_pid;
  to.type = static_cast<u8>(from.type);
  to.src_progNo = from.src_prog_no;
  to.dst_progNo = from.dst_prog_no;
}

void report(const pidmap_t& from, pid_map_t& to) {
  to.src_slot = from.src_slotNo;
  to.type = from.type;
  to.src_port = from.src_port;
  to.src_prog_no = from.src_progNo;
  to.dst_prog_no = from.dst_progNo;
  to.src_pid = from.src_pid;
  to.dst_pid = from.dst_pid;
}

// ---- The PSI store ----

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

// ---- Requests ----

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

int readLock(u8 state, chassis::bc_vhdr_t* pv, void* var) {
  if (pv->vLength != 0) return kBadLength;
  emptyReply<wire::U32>(var) = state;
  pv->vLength = sizeof(wire::U32);
  return kDone;
}

int readPidMap(const Target& t, chassis::bc_vhdr_t* pv, const void* data, void* var) {
  if (pv->vLength != sizeof(wire::U32)) return kBadLength;
  auto& reply = *static_cast<set_pid_map_t*>(var);
  const int result = QamGetPidMap(t.port, *static_cast<const wire::U32*>(data), t.para, &reply);
  pv->vLength = static_cast<u16>(offsetof(set_pid_map_t, pidmap) + sizeof(pid_map_t) * reply.this_num);
  return result;
}

int readPackets(const Target& t, chassis::bc_vhdr_t* pv, const void* data, void* var) {
  if (pv->vLength != sizeof(get_psi_pkt)) return kBadLength;
  const auto& request = *static_cast<const get_psi_pkt*>(data);
  const u16 pid = request.pid;
  const u8 tableId = request.tableid;
  // One byte, as long as management software reads a table in pages: it requests no higher position.
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

using SetLock = int(u8 slotNo, u8 port, QamCardPara* ptr, u32 lock_switch);

int writeLock(SetLock* setLock, const Target& t, const chassis::bc_vhdr_t& header, const void* var) {
  if (header.vLength != sizeof(wire::U32)) return kBadLength;
  return setLock(t.slot, t.port, t.para, *static_cast<const wire::U32*>(var));
}

int writePidMap(const Target& t, const chassis::bc_vhdr_t& header, const void* var) {
  const auto* chunk = static_cast<const set_pid_map_t*>(var);
  const auto length = static_cast<u16>(offsetof(set_pid_map_t, pidmap) + sizeof(pid_map_t) * chunk->this_num);
  return header.vLength == length ? QamSavePidMap(t.port, t.para, chunk) : kBadLength;
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
  // is enough for all.
  if (t.port == 1 && type == CAT) chassis::para_save(t.slot);
  return kDone;
}

// ---- The PID search ----

void dropCaptured(u8 slotNo) {
  u32 packet = 0;
  while (os::msgQReceive(qamTsReadQID[slotNo], reinterpret_cast<char*>(&packet), sizeof packet,
                         os::NO_WAIT) != os::ERROR) {
  }
}

}  // namespace

os::MSG_Q_ID qamTsReadQID[MAX_BOARD_NUM];
qamSearchPSI_t qamSearchPSI[MAX_BOARD_NUM];

int QamSetPidMap(u8 slotNo, u8 port, QamCardPara* ptr) {
  const u32 used = mapSize(*ptr, port);
  for (u16 i = 0; i < kPidMapSize; ++i) {
    const RouterWord position = i < used ? routerWord(ptr->pidMap[port][i]) : kUnusedPosition;
    chassis::set_one_map(slotNo, port, i, position.words);
  }
  return 0;
}

int QamPidMapSetLock(u8 slotNo, u8 port, QamCardPara* ptr, u32 lock_switch) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo < MAX_BOARD_NUM", kUnit);
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);

  u8& locked = qam_pidmap_lock_status[slotNo][port];
  if (lock_switch != 0) {
    if (locked == 1) return 0;
    locked = 1;
    ptr->pidMapNum[port] = 0;
    qam_set_default_pidmap(slotNo, port, ptr);
  } else {
    if (locked == 0) return 0;
    locked = 0;
    sortBySource(ptr->pidMap[port], mapSize(*ptr, port));
    chassis::para_save(slotNo);
    QamSetPidMap(slotNo, port, ptr);
    // Repeated for the second port: management software ends an upload of both with it, and then the record
    // on the flash is the same as the router's map.
    if (port == 1) chassis::para_save(slotNo);
  }
  return 0;
}

int QamSavePidMap(u8 port, QamCardPara* ptr, const set_pid_map_t* v) {
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);

  const u32 total = v->total_num;
  const u32 start = v->start_pos;
  const u32 count = std::min<u32>(v->this_num, kMapEntriesPerChunk);
  if (total > kPidMapSize) return kMapTooLong;
  // A stray chunk, such as a repeated chunk of an aborted upload, is no reason to fail this upload.
  if (start >= kPidMapSize || start + count > total) return kDone;

  ptr->pidMapNum[port] = total;
  for (u32 i = 0; i < count; ++i) {
    if (const int result = checkSource(v->pidmap[i]); result != kDone) return result;
    store(v->pidmap[i], ptr->pidMap[port][start + i]);
  }
  return kDone;
}

int QamGetPidMap(u8 port, u32 StartPos, QamCardPara* ptr, set_pid_map_t* v) {
  const u32 size = mapSize(*ptr, port);
  const u32 count = StartPos < size ? std::min(size - StartPos, kMapEntriesPerChunk) : 0;
  v->total_num = size;
  v->start_pos = StartPos;
  v->this_num = count;
  for (u32 i = 0; i < count; ++i) report(ptr->pidMap[port][StartPos + i], v->pidmap[i]);
  return 0;
}

u8 TableidToPsiType(u8 table_id) {
  for (u8 type = 0; type < PSINUM; ++type) {
    if (kPsiTables[type].table_id == table_id) return type;
  }
  return kNoType;
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
    qam_is_setting_psi[slotNo][port] = 0;  // last: the tick routine may use only complete lists
  }
  return 0;
}

int QamSavePsiPkt(u8 port, QamCardPara* ptr, const set_psi_pkt* v) {
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);

  const u16 pid = v->pid;
  const u8 type = TableidToPsiType(v->tableid);
  int result = kDone;
  // More than seven packets extend beyond the record, up to the size of the chassis's buffer.
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
    case kPidMapLock:
      return readLock(qam_pidmap_lock_status[target.slot][target.port], pv, var);
    case kPidMapChunk:
      return readPidMap(target, pv, data, var);
    case kPsiLock:
      return readLock(qam_psi_lock_status[target.slot][target.port], pv, var);
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
    case kPidMapLock:
      return writeLock(QamPidMapSetLock, target, *pv, var);
    case kPidMapChunk:
      return writePidMap(target, *pv, var);
    case kPsiLock:
      return writeLock(QamPsiSetLock, target, *pv, var);
    case kPsiPackets:
      return writePackets(target, *pv, var);
    case kPsiInterval:
      return writeInterval(target, *pv, var);
    default:
      return kUnknownVariable;
  }
}

int qamSetTSPID(u8 slotNo, u8 port, u16 pid, u8 tableId, u8 isSearch) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit);
  os::check(port < MAX_QAM_OUT_NUM, "port<MAX_QAM_OUT_NUM", kUnit);

  qamSearchPSI_t& current = qamSearchPSI[slotNo];
  if (isSearch == 0) {
    current.isSearch = 0;
    dropCaptured(slotNo);
    return 0;
  }
  const bool same = current.isSearch == 1 && current.pid == pid && current.tableId == tableId;
  if (same) return 0;
  current = {.isSearch = 0, .tableId = tableId, .pid = pid};  // packets captured from here on are dropped
  dropCaptured(slotNo);
  setAencOnePortTsPid(slotNo, port, pid);
  current.isSearch = 1;
  return 0;
}

int qamGetTsPidResult(u8 slotNo, u8 /*port*/, u8* pkt_buf) {
  u32 packet = 0;
  if (os::msgQReceive(qamTsReadQID[slotNo], reinterpret_cast<char*>(&packet), sizeof packet, os::NO_WAIT) < 1)
    return -1;
  std::memcpy(pkt_buf, os::wordAddress<const u8>(packet), kTsPacketSize);
  return 0;
}
