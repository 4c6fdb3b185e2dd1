// What the module needs from the chassis's main firmware, and the descriptor through which the firmware uses
// a card. C linkage, so that the firmware's functions match. Tasks and start-up only.
#pragma once

#include "qamcard/panel.h"
#include "qamcard/types.h"

// The main board's FPGA, 16-bit registers. The module uses a slot's port for loading the FPGA of its card, 16
// bytes a slot from offset 0x300 on, and the overflow bits of the outputs at offset 0x178. The layout is in
// docs/porting.md.
struct bbFpga_t;

QAM_BEGIN(chassis)

// The driver descriptor of one card. A driver fills one from the heap and passes it to `cardInsert`; the
// firmware keeps it and accesses the card through it. Routines that a card does not have are null.
struct card {
  char cardName[20];
  u8 slotNo;
  u8 cardType;
  u8 in_port_num;
  u8 out_port_num;
  struct card* next;
  struct item_t* menu;
  u32 (*getVar)(u8 slotNo, u8 portNo, u32 vid, u8** str);
  int (*setVar)(u8 slotNo, u8 portNo, u32 vid, u32 value);
  void (*statusCheck)(u8 slotNo);
  void (*backInit)(u8 slotNo);
  void (*mibRegister)(const u32* oid_base, int oid_base_len);
  void (*trapRoutine)(u8 slotNo);
  void (*init)(u8 slotNo);
  void (*auxClkIntRoutine)(u8 slotNo);  // called in interrupt context, once per tick of the auxiliary clock
  void (*Irq0Routine)(u8 slotNo);
  void (*Irq4Routine)(u8 slotNo);
  void (*Irq5Routine)(u8 slotNo);
  void* varPtr;  // the card's parameter record, `varSize` bytes, which `para_save` writes
  u32 varSize;
};
QAM_LAYOUT(sizeof(void*) != 4 || sizeof(struct card) == 84);

extern struct card* head;           // the cards inserted so far, linked by `next`
extern struct bbFpga_t* pbbFpgaIf;  // set before the first `init`

void cardInsert(struct card* newCard);
struct card* GetCardPoint(u8 slotNo);  // null for an empty slot
void configOneSlotBus(u8 slotNo, int arg1, int arg2);
void setCardType(u8 slotNo, int typeCode);

// Programs a position (0..255) of the chassis's PID router for an output of the card: three words, the lowest
// first: bits 0-12 source PID, 13-16 source port, 17-20 source slot, 21 in use, 22-34 PID on the output.
int set_one_map(u8 slotNo, u8 port, u16 index, const u16* words);

// Writes the slot's record to its parameter file. 0, or -1 when it could not be written.
int para_save(u8 slotNo);

// Busy waits of 5 us, two routines of the main firmware, and a watchdog kick.
void Delay5us(void);
void delay5us(void);
void Dog(void);

void DebugPrint(const char* format, ...) QAM_PRINTF(1, 2);

QAM_END
