#include "ts/qamPsi.h"

#include <algorithm>
#include <cstring>

#include "platform/chassis.h"
#include "platform/check.h"
#include "ts/qamIntr.h"

u8 qam_psi_lock_status[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];

namespace {

using namespace qam_back;  // NOLINT(google-build-using-namespace)

constexpr const char* kUnit = "qamBack";  // in failed checks: the back end is one unit
constexpr u8 kNoType = 255;

// Only nine bits are compared: a packet stored for a PID such as 0x3FF counts as free, and the next chunk
// overwrites it.
bool isFree(const outPsiPkt_t& entry) {
  return (entry.pid & 0x1FF) == 0x1FF;
}

outPsiPkt_t* firstFree(u8 port, QamCardPara* ptr) {
  outPsiPkt_t* store = ptr->psiPkt[port];
  outPsiPkt_t* end = store + kPsiStoreSize;
  outPsiPkt_t* entry = std::find_if(store, end, isFree);
  return entry == end ? nullptr : entry;
}

// The PMTs of different programmes are on different PIDs, so the packets of the store are counted.
u16 countPmtOnPid(u8 port, u16 pid, const QamCardPara* ptr) {
  u16 count = 0;
  for (const outPsiPkt_t& entry : ptr->psiPkt[port]) {
    if (entry.pid == pid && entry.psiType == PMT) ++count;
    if (entry.pid == 0xFFFF || entry.psiType == 0xFF) break;
  }
  return count;
}

}  // namespace

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
    qam_hold_psi(slotNo, port, 1);
    std::memset(ptr->pktNum[port], 0, sizeof ptr->pktNum[port]);
    qam_set_default_psipkt(slotNo, port, ptr);
  } else {
    if (locked == 0) return 0;
    locked = 0;
    chassis::para_save(slotNo);
    QamSetPsiInterval(slotNo, port);
    qam_hold_psi(slotNo, port, 0);  // last: the tick routine may use only complete lists
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
  if (type >= PSINUM) return 0;
  const PsiTable& table = kPsiTables[type];
  if (table.pid == kNullPid) return countPmtOnPid(port, pid, ptr);
  os::check(pid == table.pid, table.pidCheck, kUnit);
  return ptr->pktNum[port][type];
}
