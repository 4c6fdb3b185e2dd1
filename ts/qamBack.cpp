#include "ts/qamBack.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "card/QamCardPara.h"
#include "card/QamFpga.h"
#include "platform/address_word.h"
#include "platform/chassis.h"
#include "platform/check.h"
#include "ts/qamPidMap.h"
#include "ts/qamPsi.h"

namespace {

using namespace qam_back;  // NOLINT(google-build-using-namespace)

constexpr const char* kUnit = "qamBack";

constexpr chassis::bc_var qam_var[] = {
    {.vid = kPidMapLock, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPidMapChunk, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPsiLock, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPsiPackets, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {.vid = kPsiInterval, .vnum = 1, .vtype = 1, .vrd = qam_ord, .vwr = qam_owr, .vfind = nullptr},
    {},
};

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

// A reply is built in the caller's buffer; the length in its header is what is sent.
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
  // Only the low byte counts: packets from position 262 on cannot be read.
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
  // Only the write of this interval saves the record: the others are lost at a power-off unless a save
  // follows.
  if (t.port == 1 && type == CAT) chassis::para_save(t.slot);
  return kDone;
}

}  // namespace

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

// ---- The PID search ----

os::MSG_Q_ID qamTsReadQID[MAX_BOARD_NUM];
qamSearchPSI_t qamSearchPSI[MAX_BOARD_NUM];

namespace {

void dropCaptured(u8 slotNo) {
  u32 packet = 0;
  while (os::msgQReceive(qamTsReadQID[slotNo], reinterpret_cast<char*>(&packet), sizeof packet,
                         os::NO_WAIT) != os::ERROR) {
  }
}

}  // namespace

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
