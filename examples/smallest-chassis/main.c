// Starts a card in slot 0 on a board whose registers are plain memory, loads one packet of a PAT through the back
// end, runs the carousel for a second and prints what it did. Exit code 0 if the packet was sent ten times.
#define _GNU_SOURCE
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>

#include "qamcard/backend.h"
#include "qamcard/chassis.h"
#include "qamcard/qamcard.h"

enum {
  kWindow = 0x60000000,  // registers of slot 0
  kPsiReady0 = 158,      // not 0: a packet may be written
  kPsiReady1 = 174,
  kPsiLock = 0x3101,  // variables of the back end
  kPsiPackets = 0x3102,
  kPsiInterval = 0x3201,
  kPacket = 188,
  kTicksPerDelay = 10  // the auxiliary clock has 1000 ticks a second, the system clock 100
};

// Of services.c or services.cpp.
void startKernel(void);                                          // the caller becomes a task
extern unsigned messagesSent;                                    // to all queues
extern const struct bc_var* variables[QAM_SLOTS][QAM_CHANNELS];  // of the back end

// A request of management software to channel 1 of slot 0. All bytes behind its data are zero.
static int request(int isWrite, u16 variable, const u8* data, u16 size, u8* reply) {
  static struct {
    struct bc_vhdr_t header;
    u8 data[255 * kPacket];
  } received;
  const struct bc_var* row = variables[0][0];
  memset(&received, 0, sizeof received);
  received.header.paraType = variable;
  received.header.vLength = size;
  received.header.reLength = 4;
  memcpy(received.data, data, size);
  while (row->vid != variable) ++row;
  return isWrite ? row->vwr(&received.header, received.data) : row->vrd(&received.header, reply);
}

// Replaces the tables of the channel by one packet, every 100 ticks. 0 when all is done.
static int loadTable(const u8* packet) {
  const u8 lock[4] = {0, 0, 0, 1}, unlock[4] = {0};
  const u8 interval[12] = {[7] = 100};  // of table_id 0, in ticks
  u8 chunk[16 + kPacket] = {[12] = 1};  // one packet of PID 0, table_id 0
  memcpy(chunk + 16, packet, kPacket);
  return request(1, kPsiLock, lock, sizeof lock, NULL) | request(1, kPsiPackets, chunk, sizeof chunk, NULL) |
         request(1, kPsiInterval, interval, sizeof interval, NULL) | request(1, kPsiLock, unlock, sizeof unlock, NULL);
}

int main(void) {
  static u16 mainBoard[0x360 / 2];
  static u8 packet[kPacket] = {0x47, 0x40, 0x00, 0x10, 0x00, 0x00, 0xB0, 0x0D, 0x00, 0x01, 0xC1,
                               0x00, 0x00, 0x00, 0x01, 0xE1, 0x00, 0xE8, 0xF9, 0x5E, 0x7D};  // a PAT: programme 1
  static u8 reply[QAM_REPLY_SIZE];
  const u8 table[4] = {0};  // table_id 0
  int result, hundredth, tick;
  volatile u16* window = mmap((void*)(size_t)kWindow, 0x1000, PROT_READ | PROT_WRITE,
                              MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
  if (window == MAP_FAILED) return perror("The registers cannot be mapped"), 1;
  memset(packet + 21, 0xFF, sizeof packet - 21);
  window[kPsiReady0 / 2] = window[kPsiReady1 / 2] = 1;
  pbbFpgaIf = (struct bbFpga_t*)mainBoard;

  startKernel();
  Qam_Init(0);
  head->init(0);
  printf("%s in slot %d runs: frequency %u kHz\n", head->cardName, head->slotNo, head->getVar(0, 0, 30, NULL));

  result = loadTable(packet);
  printf("table loaded: result %d\n", result);
  messagesSent = 0;
  for (hundredth = 0; hundredth < 100; ++hundredth) {
    for (tick = 0; tick < kTicksPerDelay; ++tick) head->auxClkIntRoutine(0);
    taskDelay(1);
  }
  result |= request(0, kPsiInterval, table, sizeof table, reply);
  printf("one second: %u packets sent, interval %d ticks, %d packet stored\n", messagesSent, reply[6] << 8 | reply[7],
         reply[11]);
  return result != 0 || messagesSent != 10;
}
