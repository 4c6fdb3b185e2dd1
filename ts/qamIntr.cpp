#include "ts/qamIntr.h"

#include <atomic>

#include "card/QamFpga.h"
#include "platform/check.h"
#include "platform/memory.h"

os::MSG_Q_ID g_qam_PsiSendQ_ID[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];
volatile u8 qam_is_setting_psi[MAX_BOARD_NUM][MAX_QAM_OUT_NUM];

namespace {

constexpr const char* kUnit = "qamIntr";
constexpr u8 kUnitStart = 0x40;  // payload_unit_start_indicator, in a packet's second byte

// One stored packet in the circular send list of its type.
struct psi_tree_t {
  u8 idx;  // position within its group
  u8 num;  // packets of its group; of PMT packets all of the channel are one group, and more than 255 wrap
  u16 index;
  psi_tree_t* next;
};

// What the tick routine and the list builder keep, per slot, channel and type.
psi_tree_t* pQamPsi_head[MAX_BOARD_NUM][MAX_QAM_OUT_NUM][PSINUM];
psi_tree_t* pQamPsi_Cur[MAX_BOARD_NUM][MAX_QAM_OUT_NUM][PSINUM];
u32 g_qam_psi_total_cnt[MAX_BOARD_NUM][MAX_QAM_OUT_NUM][PSINUM];  // ticks until the next packet may be sent
u32 g_qam_psi_lock[MAX_BOARD_NUM][MAX_QAM_OUT_NUM][PSINUM];       // not 0 while a group is being sent

u8 qam_pkt_cnt[MAX_BOARD_NUM][MAX_QAM_OUT_NUM][kPids];  // continuity counters of all inserted packets

// Of two types on one PID, a section of one must be sent completely before one of the other may start.
bool sharePid(u8 type, u8 other) {
  return type != other && kPsiTables[type].pid == kPsiTables[other].pid;
}

void freeList(psi_tree_t*& head) {
  psi_tree_t* node = head;
  while (node != nullptr) {
    psi_tree_t* next = node->next;
    os::free(node);
    node = next == head ? nullptr : next;
  }
  head = nullptr;
}

// The list of one type while it is built.
struct ListUnderConstruction {
  psi_tree_t* tail = nullptr;
  psi_tree_t* groupStart = nullptr;
  u8 segments = 0;

  void closeGroup() {
    if (groupStart == nullptr) return;
    for (psi_tree_t* node = groupStart;; node = node->next) {
      node->num = segments;
      if (node == tail) break;
    }
  }

  void append(psi_tree_t*& head, u16 index, bool startsGroup) {
    // Not checked for null: an incomplete list would send a section that no receiver can complete, and a
    // controller without free memory must be restarted by its watchdog.
    auto* node = static_cast<psi_tree_t*>(os::malloc(sizeof(psi_tree_t)));
    node->index = index;
    if (startsGroup) {
      closeGroup();
      groupStart = node;
      segments = 0;
    }
    node->idx = segments++;
    node->num = segments;  // a packet without a preceding start packet is its own group
    if (head == nullptr) {
      head = node;
    } else {
      tail->next = node;
    }
    node->next = head;
    tail = node;
  }
};

// All PMT packets of a channel are sent back to back, whatever sections they belong to.
void joinToOneGroup(psi_tree_t* head) {
  if (head == nullptr) return;
  u8 count = 0;
  psi_tree_t* node = head;
  do {
    node->idx = count++;
    node = node->next;
  } while (node != head);
  do {
    node->num = count;
    node = node->next;
  } while (node != head);
}

// True while a group of a type on the same PID is on its way; otherwise a packet that opens a group claims
// the PID.
int is_qam_lock(u8 slotNo, u8 port, u8 psiType) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo < MAX_BOARD_NUM", kUnit);
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);
  os::check(psiType < PSINUM, "psiType < PSINUM", kUnit);

  u32* lock = g_qam_psi_lock[slotNo][port];
  for (u8 other = 0; other < PSINUM; ++other) {
    if (lock[other] != 0 && sharePid(psiType, other)) return 1;
  }
  const psi_tree_t* node = pQamPsi_Cur[slotNo][port][psiType];
  if (lock[psiType] == 0 && node->idx == 0) lock[psiType] = node->num;
  return 0;
}

void tickOfType(u8 slotNo, u8 port, u8 psiType, const QamCardPara& para) {
  psi_tree_t*& current = pQamPsi_Cur[slotNo][port][psiType];
  const u32 interval = para.Interval[port][psiType];
  if (interval == 0 || para.pktNum[port][psiType] == 0 || current == nullptr) return;

  u32& countdown = g_qam_psi_total_cnt[slotNo][port][psiType];
  if (countdown != 0) {
    --countdown;
    return;
  }
  if (is_qam_lock(slotNo, port, psiType) != 0) return;

  u32 message = current->index;
  const int sent = os::msgQSend(g_qam_PsiSendQ_ID[slotNo][port], reinterpret_cast<char*>(&message),
                                sizeof message, os::NO_WAIT, os::MSG_PRI_NORMAL);
  if (sent == os::ERROR) return;  // the queue is full: the same packet is tried at the next tick

  if (current->idx == current->num - 1) {
    countdown = interval < current->num ? 0 : interval - current->num;
    g_qam_psi_lock[slotNo][port][psiType] = 0;
  }
  current = current->next;
}

}  // namespace

void qam_hold_psi(u8 slotNo, u8 port, u8 hold) {
  std::atomic_signal_fence(std::memory_order_seq_cst);
  qam_is_setting_psi[slotNo][port] = hold;
  std::atomic_signal_fence(std::memory_order_seq_cst);
}

void QamSetPsiInterval(u8 slotNo, u8 port) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit);
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);
  const QamCardPara* para = GetQamCardParaFromList(slotNo);
  if (para == nullptr) return;

  psi_tree_t** head = pQamPsi_head[slotNo][port];
  ListUnderConstruction list[PSINUM];
  for (u8 type = 0; type < PSINUM; ++type) {
    g_qam_psi_lock[slotNo][port][type] = 0;
    freeList(head[type]);
  }

  for (u16 j = 0; j < kPsiStoreSize; ++j) {
    const outPsiPkt_t& stored = para->psiPkt[port][j];
    if (stored.pid >= kNullPid || stored.psiType >= PSINUM) break;  // erased entries end the store
    list[stored.psiType].append(head[stored.psiType], j, (stored.psiData[1] & kUnitStart) != 0);
  }

  for (u8 type = 0; type < PSINUM; ++type) {
    list[type].closeGroup();
    pQamPsi_Cur[slotNo][port][type] = head[type];
    // Staggered, so that types, ports and slots are not all due on one tick.
    g_qam_psi_total_cnt[slotNo][port][type] = type + 6U * slotNo + 2U * port;
  }
  joinToOneGroup(head[PMT]);
}

void qamIntr(u8 slotNo) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit);
  const QamCardPara* para = GetQamCardParaFromList(slotNo);
  if (para == nullptr) return;

  for (u8 port = 0; port < MAX_QAM_OUT_NUM; ++port) {
    if (qam_is_setting_psi[slotNo][port] != 0) continue;
    for (u8 type = 0; type < PSINUM; ++type) tickOfType(slotNo, port, type, *para);
  }
}

int QamTaskPsiSend(u8 slotNo, u8 port) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit);
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);
  const QamCardPara* para = GetQamCardParaFromList(slotNo);
  if (para == nullptr) return -1;

  const Qam_fpga_if* fpga = QamFpgaIf[slotNo];
  const Reg16& ready = port == 0 ? fpga->PsiRdy0 : fpga->PsiRdy1;
  for (;;) {
    u32 index = kPsiStoreSize;
    const int received = os::msgQReceive(g_qam_PsiSendQ_ID[slotNo][port], reinterpret_cast<char*>(&index),
                                         sizeof index, os::WAIT_FOREVER);
    // Without a queue (no memory at the start) the receive fails at once: the tasks below must run.
    if (received == os::ERROR) os::taskDelay(1);
    if (index >= kPsiStoreSize) continue;
    while (ready == 0) {
    }
    qamWritePsi(slotNo, para->psiPkt[port][index].psiData, port);
  }
}

void qamWritePsi(u8 slotNo, const u8* pkt, u8 port) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo < MAX_BOARD_NUM", kUnit);
  os::check(port < MAX_QAM_OUT_NUM, "port < MAX_QAM_OUT_NUM", kUnit);
  os::check(pkt != nullptr, "pkt != NULL", kUnit);

  constexpr int kFillerWords = 16;  // a packet takes the time of 204 bytes
  constexpr u16 kFiller = 0xFFFF;

  const int pid = (pkt[1] & 0x1F) << 8 | pkt[2];
  u8& continuity = qam_pkt_cnt[slotNo][port][pid];
  Qam_fpga_if* fpga = QamFpgaIf[slotNo];
  Reg16& data = port == 0 ? fpga->PsiData0 : fpga->PsiData1;

  data = pkt[0];
  data = pkt[1];
  data = pkt[2];
  data = static_cast<u16>((pkt[3] & 0xF0) + (continuity & 0x0F));
  for (std::size_t i = 4; i < kTsPacketSize; ++i) data = pkt[i];
  for (int i = 0; i < kFillerWords; ++i) data = kFiller;
  ++continuity;
}
