#include "hw/ad9775_ctrl.h"

#include <cstdio>
#include <cstring>

#include "card/QamFpga.h"
#include "hw/X24cxx.h"
#include "hw/ad9775.h"
#include "platform/check.h"
#include "platform/kernel.h"
#include "platform/sockets.h"

int mysock[MAX_BOARD_NUM];

namespace {

constexpr const char* kUnit = "ad9775_ctrl";
constexpr u16 kPort = 49156;
constexpr int kTaskPriority = 235;
constexpr int kTaskStack = 5000;
constexpr int kLongestDatagram = 100;
enum Command : u8 { kRead = 1, kWrite = 2 };

int serviceEntry(int slotNo, int, int, int, int, int, int, int, int, int) {
  Ad9775Ctrl(static_cast<u8>(slotNo));
  return 0;
}

// In a packet the registers follow the first two bytes, in the DAC's order.
constexpr int kFirstRegister = offsetof(AdIpPacket, CommonReg);
static_assert(kFirstRegister == 2 && offsetof(AdIpPacket, I_Para) == 7 && offsetof(AdIpPacket, Q_Para) == 11);

void readAll(u8 slotNo, u8* registers) {
  for (u8 n = 0; n < kDacRegisters; ++n) registers[n] = ad9775_reg_read(slotNo, n);
}

// Each byte is written to the DAC and to the EEPROM, and read back from the EEPROM. A bus analyser shows with
// that whether it was stored; the module does not compare.
void writeAll(u8 slotNo, const u8* registers) {
  for (u8 n = 0; n < kDacRegisters; ++n) {
    ad9775_reg_write(slotNo, n, &registers[n], 1);
    at24cxx_wr_byte(n, registers[n], slotNo);
    at24cxx_rd_byte(n, slotNo);
  }
}

}  // namespace

void Ad9775Ctrl_Init(u8 slotNo) {
  os::check(slotNo < MAX_BOARD_NUM, "slotNo<MAX_BOARD_NUM", kUnit);
  if (slotNo >= MAX_BOARD_NUM) return;
  mysock[slotNo] = os::socket(os::AF_INET, os::SOCK_DGRAM, 0);
  if (mysock[slotNo] == os::ERROR) os::sleepMilliseconds(1000);

  os::sockaddr_in address{};
  address.sin_len = sizeof address;
  address.sin_family = os::AF_INET;
  address.sin_port = kPort;
  if (os::bind(mysock[slotNo], &address, sizeof address) == os::ERROR) {
    os::close(mysock[slotNo]);
    os::sleepMilliseconds(1000);
  }

  char name[20];
  std::snprintf(name, sizeof name, "tAd9775Ctrl%d", slotNo);
  // All arguments are 0, so the task always serves the first socket: packets give their slot, and one service
  // is enough for a chassis.
  os::taskSpawn(name, kTaskPriority, 0, kTaskStack, serviceEntry, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
  chassis::Dog();
}

void Ad9775Ctrl(u8 slotNo) {
  for (;;) {
    os::sockaddr_in from{};
    int fromLength = sizeof from;
    u8 request[kLongestDatagram] = {};
    const int length =
        os::recvfrom(mysock[slotNo], reinterpret_cast<char*>(request), sizeof request, 0, &from, &fromLength);
    if (length == os::ERROR) {
      os::sleepMilliseconds(10);
      continue;
    }
    u8 reply[kLongestDatagram];
    int replyLength = sizeof reply;
    if (AdPackHandle(slotNo, request, length, reply, &replyLength) > 0) {
      os::sendto(mysock[slotNo], reinterpret_cast<char*>(reply), replyLength, 0, &from, fromLength);
    }
    os::sleepMilliseconds(100);
  }
}

int AdPackHandle(u8 /*slotNo*/, u8* Src, int /*Len*/, u8* Out, int* OutLen) {
  const u8 channel = Src[offsetof(AdIpPacket, Channel)];
  if (channel >= MAX_BOARD_NUM || QamFpgaIf[channel] == nullptr) return -1;
  switch (Src[offsetof(AdIpPacket, idx)]) {
    case kRead:
      Out[offsetof(AdIpPacket, idx)] = kRead;
      Out[offsetof(AdIpPacket, Channel)] = channel;
      readAll(channel, Out + kFirstRegister);
      *OutLen = sizeof(AdIpPacket);
      return 1;
    case kWrite:
      writeAll(channel, Src + kFirstRegister);
      return 0;
    default:
      return -1;
  }
}
