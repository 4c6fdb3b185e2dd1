// The services of a smallest chassis in C: a kernel of POSIX threads, of which one runs at a time, and firmware that
// prints what it is asked for. A task gives the processor away only where it sleeps. services.cpp is the same in C++.
#define _GNU_SOURCE
#include <pthread.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "qamcard/agent.h"
#include "qamcard/alarms.h"
#include "qamcard/backend.h"
#include "qamcard/chassis.h"
#include "qamcard/plain_names.h"
#include "qamcard/qamcard.h"

// ---- The kernel ----

enum { kTickRate = 100, kFailed = -1 };
static pthread_mutex_t processor = PTHREAD_MUTEX_INITIALIZER;

unsigned messagesSent;

void startKernel(void) { pthread_mutex_lock(&processor); }

struct Task {
  FUNCPTR entry;
  int arg[10];
};
static void* runTask(void* context) {
  struct Task t = *(struct Task*)context;
  free(context);
  pthread_mutex_lock(&processor);
  t.entry(t.arg[0], t.arg[1], t.arg[2], t.arg[3], t.arg[4], t.arg[5], t.arg[6], t.arg[7], t.arg[8], t.arg[9]);
  pthread_mutex_unlock(&processor);
  return NULL;
}
int taskSpawn(const char* name, int priority, int options, int stackSize, FUNCPTR entry, int arg1, int arg2, int arg3,
              int arg4, int arg5, int arg6, int arg7, int arg8, int arg9, int arg10) {
  const struct Task all = {entry, {arg1, arg2, arg3, arg4, arg5, arg6, arg7, arg8, arg9, arg10}};
  struct Task* task = malloc(sizeof *task);
  pthread_t thread;
  if (task == NULL) return kFailed;
  *task = all;
  printf("task %s: priority %d, stack %d\n", name, priority, stackSize);
  if (pthread_create(&thread, NULL, runTask, task) != 0) return kFailed;
  pthread_detach(thread);
  return 1;
}
int taskDelay(int ticks) {
  const struct timespec time = {ticks / kTickRate, ticks % kTickRate * (1000000000L / kTickRate)};
  pthread_mutex_unlock(&processor);
  nanosleep(&time, NULL);
  pthread_mutex_lock(&processor);
  return 0;
}
int taskLock(void) { return 0; }  // no other task runs until the caller sleeps
int taskUnlock(void) { return 0; }
int sysClkRateGet(void) { return kTickRate; }

struct MsgQ {
  unsigned capacity, size, first, count;  // in messages; `size` is that of a message in bytes
  unsigned length[1024];
  char* bytes;
};
MSG_Q_ID msgQCreate(int maxMsgs, int maxMsgLength, int options) {
  MSG_Q_ID queue = calloc(1, sizeof *queue);
  if (queue == NULL || maxMsgs > 1024) return NULL;
  queue->capacity = (unsigned)maxMsgs;
  queue->size = (unsigned)maxMsgLength;
  queue->bytes = calloc(queue->capacity, queue->size);
  return queue->bytes != NULL ? queue : NULL;
}
int msgQSend(MSG_Q_ID queue, char* buffer, unsigned length, int timeout, int priority) {
  unsigned at;
  if (queue == NULL || length > queue->size) return kFailed;
  for (; queue->count == queue->capacity; timeout -= timeout > 0) {
    if (timeout == 0) return kFailed;
    taskDelay(1);
  }
  at = (queue->first + queue->count++) % queue->capacity;
  queue->length[at] = length;
  memcpy(queue->bytes + at * queue->size, buffer, length);
  ++messagesSent;
  return 0;
}
int msgQReceive(MSG_Q_ID queue, char* buffer, unsigned maxLength, int timeout) {
  unsigned at, length;
  if (queue == NULL) return kFailed;
  for (; queue->count == 0; timeout -= timeout > 0) {
    if (timeout == 0) return kFailed;
    taskDelay(1);
  }
  at = queue->first;
  length = queue->length[at] < maxLength ? queue->length[at] : maxLength;
  memcpy(buffer, queue->bytes + at * queue->size, length);
  queue->first = (at + 1) % queue->capacity;
  --queue->count;
  return (int)length;
}
// There are none: semQamVar stays null.
int semTake(SEM_ID semaphore, int timeout) { return kFailed; }
int semGive(SEM_ID semaphore) { return kFailed; }

// ---- The main firmware ----

struct card* head;
struct bbFpga_t* pbbFpgaIf;

void cardInsert(struct card* newCard) {
  newCard->next = head;
  head = newCard;
}
struct card* GetCardPoint(u8 slotNo) {
  struct card* each = head;
  while (each != NULL && each->slotNo != slotNo) each = each->next;
  return each;
}
void configOneSlotBus(u8 slotNo, int arg1, int arg2) { printf("bus of slot %d: %d, %d\n", slotNo, arg1, arg2); }
void setCardType(u8 slotNo, int typeCode) { printf("type of the card in slot %d: %d\n", slotNo, typeCode); }
int set_one_map(u8 slotNo, u8 port, u16 index, const u16* words) { return 0; }
// A chassis writes GetCardPoint(slotNo)->varPtr to a temporary file, flushes and renames it.
int para_save(u8 slotNo) { return printf("record of slot %d to be saved\n", slotNo), 0; }
void Delay5us(void) {}
void delay5us(void) {}
void Dog(void) {}
void DebugPrint(const char* format, ...) {
  va_list values;
  va_start(values, format);
  vprintf(format, values);
  va_end(values);
}
void __assert_fail(const char* text, const char* unit, unsigned line, const char* function) {
  printf("check failed: %s, %s line %u%s\n", text, unit, line, function);
}

const struct bc_var* variables[QAM_SLOTS][QAM_CHANNELS];
int bc_vars_register(u32 base, u32 limit, const struct bc_var* table, const char* text) {
  variables[base >> 24][base >> 16 & 0xFF] = table;
  return 0;
}

void AddAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTitle, const char* zhContent, const char* enTitle,
                const char* enContent, const char* zhTrap, const char* enTrap) {
  printf("alarm %u of slot %d, port %d: %s %s\n", type, slotNo, port, enTitle, enContent);
}
void DelAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTrap, const char* enTrap) {
  printf("end of alarm %u of slot %d, port %d: %s\n", type, slotNo, port, enTrap);
}
int IsAlarmExist(u8 slotNo, u8 port, u16 type, int arg4) { return 0; }
u8 out_port_to_mbrd_out(u8 slotNo, u8 port) { return (u8)(slotNo * QAM_CHANNELS + port); }

// ---- No panel, no agent, no network ----

void menuRegister(struct item_t* root) { printf("menu: %.20s\n", root->en.text); }
void menuDispItem(const struct item_t* item, int arg2, u32 attribute) {}
void lcdPrintf(int row, int column, u32 attribute, u32 mask, const char* format, ...) {}
u8 keyScan(void) { return taskDelay(1), kKeyLeave; }
void mib_register(const u32* base, int baseLength, const struct variable4* rows, int count, int rowSize) {}
int compare(const u32* name1, int length1, const u32* name2, int length2) { return 0; }
u8* asn_parse_string(u8* data, int* left, u8* type, u8* string, int* length) { return NULL; }
u8* asn_parse_unsigned_int(u8* data, int* left, u8* type, u32* number, int size) { return NULL; }
int socket(int domain, int type, int protocol) { return kFailed; }
int bind(int s, void* name, int length) { return kFailed; }
int recvfrom(int s, char* buffer, int length, int flags, void* from, int* fromLength) {
  return taskDelay(kTickRate), kFailed;
}
int sendto(int s, char* buffer, int length, int flags, void* to, int toLength) { return kFailed; }
int close(int s) { return kFailed; }
