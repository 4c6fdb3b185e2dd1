// The services of platform/, carried out by the running headend: the one place through which the module
// reaches it.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>

#include "headend/headend.h"
#include "platform/agent.h"
#include "platform/alarms.h"
#include "platform/backend.h"
#include "platform/bus.h"
#include "platform/chassis.h"
#include "platform/check.h"
#include "platform/files.h"
#include "platform/mainboard.h"
#include "platform/memory.h"
#include "platform/sockets.h"

namespace {

headend::Headend* running = nullptr;

headend::Kernel& kernel() {
  return running->kernel;
}
const headend::Costs& costs() {
  return running->kernel.settings().costs;
}

std::string formatted(const char* format, std::va_list args) {
  std::array<char, 512> text{};
  std::vsnprintf(text.data(), text.size(), format, args);
  return text.data();
}

}  // namespace

void headend::setRunning(Headend* headend) {
  running = headend;
  chassis::head = nullptr;
  chassis::pbbFpgaIf = headend == nullptr ? nullptr : static_cast<bbFpga_t*>(headend->bus.mainBoard());
}

namespace os {

u16 busRead16(const volatile void* reg) {
  headend::Kernel& k = kernel();
  k.requireTask("a register read");
  k.spend(costs().busAccess);
  const u16 value = running->bus.read(reg, k.now());
  k.notePolling(reg, value);
  return value;
}

void busWrite16(volatile void* reg, u16 value) {
  headend::Kernel& k = kernel();
  k.requireTask("a register write");
  k.noteWrite(reg);
  k.spend(costs().busAccess);
  running->bus.write(reg, value, k.now());
}

void* busAddress(u32 address) {
  return running->bus.hostAddress(address);
}

void checkFailed(const char* text, const char* unit, int line) {
  running->observation.checkFailed(text, unit, line);
}

std::FILE* fopen(const char* path, const char* mode) {
  kernel().charge("fopen", costs().fileCall);
  return running->flash.open(path, mode);
}

void* malloc(std::size_t size) {
  kernel().charge("malloc", costs().memoryCall);
  void* block = running->heap.allocate(size);
  // Reported at once: the card does not check every allocation, and this may be the run's last line.
  if (block == nullptr) {
    const headend::Task* task = kernel().current();
    running->say(fmt::format("the heap (--heap {}) has no {} bytes left for {}", running->options.heapBytes,
                             size, task != nullptr ? task->name : "the chassis"));
  }
  return block;
}

void free(void* block) {
  kernel().charge("free", costs().memoryCall);
  running->heap.release(block);
}

int socket(int domain, int type, int /*protocol*/) {
  kernel().charge("socket", costs().kernelCall);
  return domain == AF_INET && type == SOCK_DGRAM ? running->sockets.open() : ERROR;
}

int bind(int s, sockaddr_in* name, int length) {
  kernel().charge("bind", costs().kernelCall);
  return length == sizeof *name ? running->sockets.bind(s, name->sin_port) : ERROR;
}

int recvfrom(int s, char* buffer, int length, int /*flags*/, sockaddr_in* from, int* fromLength) {
  kernel().charge("recvfrom", costs().kernelCall);
  const std::optional<headend::Datagram> datagram = running->sockets.receive(s);
  if (!datagram) return ERROR;
  const std::size_t size = std::min(datagram->bytes.size(), static_cast<std::size_t>(length));
  std::copy_n(datagram->bytes.begin(), size, buffer);
  *from = {};
  from->sin_len = sizeof *from;
  from->sin_family = AF_INET;
  from->sin_port = datagram->from.port;
  from->sin_addr = datagram->from.address;
  *fromLength = sizeof *from;
  return static_cast<int>(size);
}

int sendto(int s, char* buffer, int length, int /*flags*/, sockaddr_in* to, int /*toLength*/) {
  kernel().charge("sendto", costs().kernelCall);
  headend::UdpSocket* const socket = running->sockets.find(s);
  if (socket == nullptr) return ERROR;
  socket->send({.address = to->sin_addr, .port = to->sin_port}, {buffer, buffer + length});
  return length;
}

int close(int s) {
  kernel().charge("close", costs().kernelCall);
  return running->sockets.close(s);
}

void countingLoop(u32 turns) {
  kernel().charge("a counting loop", costs().loopTurn * turns);
}

extern "C" {

int taskSpawn(const char* name, int priority, int /*options*/, int /*stackSize*/, FUNCPTR entry, int arg1,
              int arg2, int arg3, int arg4, int arg5, int arg6, int arg7, int arg8, int arg9, int arg10) {
  return kernel().spawn(name, priority,
                        [=] { entry(arg1, arg2, arg3, arg4, arg5, arg6, arg7, arg8, arg9, arg10); });
}
int taskDelay(int ticks) {
  return kernel().delay(ticks);
}
int taskLock() {
  return kernel().lock();
}
int taskUnlock() {
  return kernel().unlock();
}
int sysClkRateGet() {
  return kernel().settings().tickHz;
}

MSG_Q_ID msgQCreate(int maxMsgs, int maxMsgLength, int /*options*/) {
  return kernel().createQueue(maxMsgs, maxMsgLength);
}
int msgQSend(MSG_Q_ID queue, char* buffer, unsigned length, int timeout, int /*priority*/) {
  return kernel().send(queue, {buffer, length}, timeout);
}
int msgQReceive(MSG_Q_ID queue, char* buffer, unsigned maxLength, int timeout) {
  return kernel().receive(queue, {buffer, maxLength}, timeout);
}

int semTake(SEM_ID semaphore, int timeout) {
  return kernel().take(semaphore, timeout);
}
int semGive(SEM_ID semaphore) {
  return kernel().give(semaphore);
}

}  // extern "C"
}  // namespace os

namespace chassis {
extern "C" {

card* head = nullptr;
bbFpga_t* pbbFpgaIf = nullptr;

void cardInsert(card* newCard) {
  running->chassis.cardInsert(newCard);
}

card* GetCardPoint(u8 slotNo) {
  return slotNo < MAX_BOARD_NUM ? running->chassis.slot(slotNo).descriptor : nullptr;
}

// This chassis has the same bus and the same start-up for all kinds of cards.
void configOneSlotBus(u8 /*slotNo*/, int /*arg1*/, int /*arg2*/) {}
void setCardType(u8 /*slotNo*/, int /*typeCode*/) {}

// The main firmware writes the words and the index to registers of its own.
int set_one_map(u8 slotNo, u8 port, u16 index, const u16* words) {
  kernel().charge("set_one_map", 4 * costs().busAccess);
  running->router.set(kernel().now(), slotNo, port, index, {words[0], words[1], words[2]});
  return os::OK;
}

int para_save(u8 slotNo) {
  kernel().requireTask("para_save");
  kernel().notePollingEnds();
  return slotNo < MAX_BOARD_NUM ? running->chassis.save(slotNo) : os::ERROR;
}

void menuRegister(item_t* root) {
  running->panel.registerRoot(*root);
}
void menuDispItem(const item_t* item, int /*arg2*/, u32 /*attribute*/) {
  running->panel.showHeading(*item);
}
u8 keyScan() {
  return running->panel.keys.scan();
}

void lcdPrintf(int row, int column, u32 /*attribute*/, u32 mask, const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  const std::string text = formatted(format, args);
  va_end(args);
  headend::Lcd& lcd = running->panel.layer();
  if (column == kPanelWholeLine) {
    lcd.printRow(row, text);
    running->chassis.noteLine(row, text);
  } else {
    lcd.print(row, column, mask, text);
  }
}

void AddAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTitle, const char* zhContent, const char* enTitle,
                const char* enContent, const char* zhTrap, const char* enTrap) {
  kernel().charge("AddAnAlarm", costs().kernelCall);
  running->alarms.add({slotNo, port, type}, {zhTitle, zhContent, enTitle, enContent, zhTrap, enTrap});
}
void DelAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTrap, const char* enTrap) {
  kernel().charge("DelAnAlarm", costs().kernelCall);
  running->alarms.remove({slotNo, port, type}, zhTrap, enTrap);
}
int IsAlarmExist(u8 slotNo, u8 port, u16 type, int /*arg4*/) {
  kernel().charge("IsAlarmExist", costs().kernelCall);
  return running->alarms.find({slotNo, port, type}) != nullptr ? 1 : 0;
}

u8 out_port_to_mbrd_out(u8 slotNo, u8 port) {
  return static_cast<u8>(headend::MainBoard::outputNumber(slotNo, port));
}

void Delay5us() {
  kernel().charge("Delay5us", costs().wait5us);
}
void delay5us() {
  kernel().charge("delay5us", costs().wait5us);
}
void Dog() {
  kernel().kickWatchdog();
}

void DebugPrint(const char* format, ...) {
  std::va_list args;
  va_start(args, format);
  const std::string text = formatted(format, args);
  va_end(args);
  running->log.line(kernel().now(), kernel().runningName(), text);
  running->shell.printed(kernel().current(), text);
}

void mib_register(const u32* oid_base, int oid_base_len, const variable4* rows, int count, int rowSize) {
  if (running->snmp) running->snmp->registerRows(oid_base, oid_base_len, rows, count, rowSize);
}

int bc_vars_register(u32 base, u32 limit, const bc_var* table, const char* /*text*/) {
  running->backEnd.registerVariables(base, limit, table);
  return os::OK;
}

}  // extern "C"
}  // namespace chassis
