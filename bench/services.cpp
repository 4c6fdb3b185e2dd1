#include "bench/services.h"

#include <algorithm>
#include <cstring>

#include "client/psi_capture.h"
#include "client/table_packets.h"
#include "platform/alarms.h"
#include "platform/backend.h"
#include "platform/mainboard.h"
#include "ts/qamIntr.h"
#include "ts/qamPsi.h"

namespace os {
extern "C" {

int msgQSend(MSG_Q_ID queue, char* buffer, unsigned /*length*/, int /*timeout*/, int /*priority*/) {
  if (queue->count == MsgQ::kLength) return ERROR;
  std::memcpy(&queue->messages[queue->count++], buffer, sizeof(u32));
  return OK;
}
// No task waits: the loop of the send tasks is not counted.
int msgQReceive(MSG_Q_ID /*queue*/, char* /*buffer*/, unsigned /*maxLength*/, int /*timeout*/) {
  return ERROR;
}

int taskDelay(int /*ticks*/) {
  return OK;
}
int sysClkRateGet() {
  return 100;
}
int taskLock() {
  return OK;
}
int taskUnlock() {
  return OK;
}
int taskSpawn(const char* /*name*/, int /*priority*/, int /*options*/, int /*stackSize*/, FUNCPTR /*entry*/,
              int /*arg1*/, int /*arg2*/, int /*arg3*/, int /*arg4*/, int /*arg5*/, int /*arg6*/,
              int /*arg7*/, int /*arg8*/, int /*arg9*/, int /*arg10*/) {
  return ERROR;
}

}  // extern "C"
}  // namespace os

namespace chassis {
extern "C" {

card* head = nullptr;
bbFpga_t* pbbFpgaIf = nullptr;

int para_save(u8 /*slotNo*/) {
  return os::OK;
}
// No alarm is kept, so that a condition that holds is raised anew in each pass.
void AddAnAlarm(u8 /*slotNo*/, u8 /*port*/, u16 /*type*/, const char* /*zhTitle*/, const char* /*zhContent*/,
                const char* /*enTitle*/, const char* /*enContent*/, const char* /*zhTrap*/,
                const char* /*enTrap*/) {}
void DelAnAlarm(u8 /*slotNo*/, u8 /*port*/, u16 /*type*/, const char* /*zhTrap*/, const char* /*enTrap*/) {}
int IsAlarmExist(u8 /*slotNo*/, u8 /*port*/, u16 /*type*/, int /*arg4*/) {
  return 0;
}
u8 out_port_to_mbrd_out(u8 slotNo, u8 port) {
  return static_cast<u8>(MAX_QAM_OUT_NUM * slotNo + port);
}
void Delay5us() {}
void delay5us() {}
void Dog() {}
void DebugPrint(const char* /*format*/, ...) {}
card* GetCardPoint(u8 /*slotNo*/) {
  return nullptr;
}
int set_one_map(u8 /*slotNo*/, u8 /*port*/, u16 /*index*/, const u16* /*words*/) {
  return os::OK;
}
int bc_vars_register(u32 /*base*/, u32 /*limit*/, const bc_var* /*table*/, const char* /*text*/) {
  return os::OK;
}

}  // extern "C"
}  // namespace chassis

namespace bench {
namespace {

std::size_t store(u8 port, QamCardPara& record, const client::Tables& tables) {
  std::size_t stored = 0;
  for (const client::TablePackets& table : tables) {
    for (const mpeg::Packet& packet : table.packets) {
      set_psi_pkt request{};
      request.pid = table.pid;
      request.tableid = mpeg::tableId(table.type);
      request.this_num = 1;
      std::copy(packet.begin(), packet.end(), request.psi_pkt[0]);
      if (QamSavePsiPkt(port, &record, &request) == 0) ++stored;
    }
  }
  return stored;
}

}  // namespace

Card::Card(const std::filesystem::path& capture) {
  const client::Tables tables = client::packTables(client::readCapture(capture).sections);
  client::checkStorable(tables);
  packets_ = client::packetsIn(tables);

  qam_load_default(0, record_.get());
  descriptor_.cardType = QAM_CARD_TYPE;
  descriptor_.varPtr = record_.get();
  chassis::head = &descriptor_;
  QamFpgaIf[0] = &window_;
  for (u8 port = 0; port < MAX_QAM_OUT_NUM; ++port) {
    if (store(port, *record_, tables) != packets_) throw client::Error("the card refused packets");
    g_qam_PsiSendQ_ID[0][port] = &queues_[port];
    QamSetPsiInterval(0, port);
  }
}

Card::~Card() {
  chassis::head = nullptr;
  QamFpgaIf[0] = nullptr;
  for (os::MSG_Q_ID& queue : g_qam_PsiSendQ_ID[0]) queue = nullptr;
}

}  // namespace bench
