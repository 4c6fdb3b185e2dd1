// The services of a smallest chassis in C++: a kernel of threads, of which one runs at a time, and firmware that prints
// what it is asked for. A task gives the processor away only where it sleeps. services.c is the same in C.
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

#include "qamcard/agent.h"
#include "qamcard/alarms.h"
#include "qamcard/backend.h"
#include "qamcard/chassis.h"
#include "qamcard/plain_names.h"
#include "qamcard/qamcard.h"

namespace {

constexpr int kTickRate = 100, kDone = 0, kFailed = -1;
std::mutex processor;

void sleepTicks(int ticks) {
  processor.unlock();
  std::this_thread::sleep_for(std::chrono::milliseconds(ticks * (1000 / kTickRate)));
  processor.lock();
}

// False if `condition` does not come within `timeout` ticks; negative: no limit.
template <class Condition>
bool waitFor(Condition condition, int timeout) {
  for (; !condition(); timeout -= timeout > 0) {
    if (timeout == 0) return false;
    sleepTicks(1);
  }
  return true;
}

}  // namespace

struct MsgQ {
  std::size_t capacity;
  std::deque<std::string> messages;
};

extern "C" {

// ---- The kernel ----

unsigned messagesSent;

void startKernel() { processor.lock(); }

int taskSpawn(const char* name, int priority, int, int stackSize, FUNCPTR entry, int a, int b, int c, int d, int e,
              int f, int g, int h, int i, int j) {
  std::printf("task %s: priority %d, stack %d\n", name, priority, stackSize);
  std::thread([=] {
    std::lock_guard<std::mutex> running(processor);
    entry(a, b, c, d, e, f, g, h, i, j);
  }).detach();
  return 1;
}
int taskDelay(int ticks) { return sleepTicks(ticks), kDone; }
int taskLock() { return kDone; }  // no other task runs until the caller sleeps
int taskUnlock() { return kDone; }
int sysClkRateGet() { return kTickRate; }

MSG_Q_ID msgQCreate(int maxMsgs, int, int) { return new MsgQ{static_cast<std::size_t>(maxMsgs), {}}; }
int msgQSend(MSG_Q_ID queue, char* buffer, unsigned length, int timeout, int) {
  if (queue == nullptr) return kFailed;
  if (!waitFor([=] { return queue->messages.size() < queue->capacity; }, timeout)) return kFailed;
  queue->messages.emplace_back(buffer, length);
  ++messagesSent;
  return kDone;
}
int msgQReceive(MSG_Q_ID queue, char* buffer, unsigned maxLength, int timeout) {
  if (queue == nullptr || !waitFor([=] { return !queue->messages.empty(); }, timeout)) return kFailed;
  const std::size_t length = queue->messages.front().copy(buffer, maxLength);
  queue->messages.pop_front();
  return static_cast<int>(length);
}
// There are none: semQamVar stays null.
int semTake(SEM_ID, int) { return kFailed; }
int semGive(SEM_ID) { return kFailed; }

// ---- The main firmware ----

card* head;
bbFpga_t* pbbFpgaIf;
const bc_var* variables[QAM_SLOTS][QAM_CHANNELS];

void cardInsert(card* newCard) {
  newCard->next = head;
  head = newCard;
}
card* GetCardPoint(u8 slotNo) {
  card* each = head;
  while (each != nullptr && each->slotNo != slotNo) each = each->next;
  return each;
}
void configOneSlotBus(u8 slotNo, int arg1, int arg2) { std::printf("bus of slot %d: %d, %d\n", slotNo, arg1, arg2); }
void setCardType(u8 slotNo, int typeCode) { std::printf("type of the card in slot %d: %d\n", slotNo, typeCode); }
int set_one_map(u8, u8, u16, const u16*) { return kDone; }
// A chassis writes GetCardPoint(slotNo)->varPtr to a temporary file, flushes and renames it.
int para_save(u8 slotNo) { return std::printf("record of slot %d to be saved\n", slotNo), kDone; }
void Delay5us() {}
void delay5us() {}
void Dog() {}
void DebugPrint(const char* format, ...) {
  va_list values;
  va_start(values, format);
  std::vprintf(format, values);
  va_end(values);
}
void __assert_fail(const char* text, const char* unit, unsigned line, const char*) {
  std::printf("check failed: %s, %s line %u\n", text, unit, line);
}
int bc_vars_register(u32 base, u32, const bc_var* table, const char*) {
  variables[base >> 24][base >> 16 & 0xFF] = table;
  return kDone;
}
void AddAnAlarm(u8 slotNo, u8 port, u16 type, const char*, const char*, const char* title, const char* content,
                const char*, const char*) {
  std::printf("alarm %u of slot %d, port %d: %s %s\n", type, slotNo, port, title, content);
}
void DelAnAlarm(u8 slotNo, u8 port, u16 type, const char*, const char* text) {
  std::printf("end of alarm %u of slot %d, port %d: %s\n", type, slotNo, port, text);
}
int IsAlarmExist(u8, u8, u16, int) { return 0; }
u8 out_port_to_mbrd_out(u8 slotNo, u8 port) { return static_cast<u8>(slotNo * QAM_CHANNELS + port); }

// ---- No panel, no agent, no network ----

void menuRegister(item_t* root) { std::printf("menu: %.20s\n", root->en.text); }
void menuDispItem(const item_t*, int, u32) {}
void lcdPrintf(int, int, u32, u32, const char*, ...) {}
u8 keyScan() { return sleepTicks(1), u8{kKeyLeave}; }
void mib_register(const u32*, int, const variable4*, int, int) {}
int compare(const u32*, int, const u32*, int) { return 0; }
u8* asn_parse_string(u8*, int*, u8*, u8*, int*) { return nullptr; }
u8* asn_parse_unsigned_int(u8*, int*, u8*, u32*, int) { return nullptr; }
int socket(int, int, int) { return kFailed; }
int bind(int, void*, int) { return kFailed; }
int recvfrom(int, char*, int, int, void*, int*) { return sleepTicks(kTickRate), kFailed; }
int sendto(int, char*, int, int, void*, int) { return kFailed; }
int close(int) { return kFailed; }
}
