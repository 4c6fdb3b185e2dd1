#include "tests/module/chassis.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <compare>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>

#include "card/QamInit.h"
#include "headend/hardware/card_registers.h"
#include "platform/alarms.h"
#include "platform/bus.h"
#include "platform/check.h"
#include "platform/files.h"
#include "platform/memory.h"
#include "platform/sockets.h"
#include "tests/module/gbk_text.h"

namespace test {
namespace {

FakeChassis* current = nullptr;

std::string formatted(const char* format, va_list arguments) {
  char text[200];
  std::vsnprintf(text, sizeof text, format, arguments);
  return text;
}

// A file of the flash while it is open.
struct OpenFile {
  std::string path;
  Bytes content;
  std::size_t readable;
  std::size_t at = 0;
  std::FILE* stream = nullptr;
};

ssize_t readFile(void* cookie, char* buffer, std::size_t size) {
  auto* file = static_cast<OpenFile*>(cookie);
  const std::size_t count = file->at < file->readable ? std::min(size, file->readable - file->at) : 0;
  std::copy_n(file->content.data() + file->at, count, buffer);
  file->at += count;
  return static_cast<ssize_t>(count);
}

int seekFile(void* cookie, off64_t* offset, int whence) {
  auto* file = static_cast<OpenFile*>(cookie);
  const std::size_t base = whence == SEEK_END ? file->content.size() : whence == SEEK_CUR ? file->at : 0;
  file->at = base + static_cast<std::size_t>(*offset);
  *offset = static_cast<off64_t>(file->at);
  return 0;
}

int closeFile(void* cookie) {
  const std::unique_ptr<OpenFile> file(static_cast<OpenFile*>(cookie));
  current->openFiles.erase(file->stream);
  current->note("close " + file->path);
  return 0;
}

// Content of a value that is encoded with the tag (ITU-T X.690, 8.1: definite lengths); null when `data`
// holds another, or more content than `room` bytes.
u8* contentOf(u8* data, u8 tag, int room, int* size) {
  if (*data++ != tag) return nullptr;
  u32 length = *data++;
  if (length > 0x80) {
    int bytes = static_cast<int>(length & 0x7F);
    for (length = 0; bytes > 0; --bytes) {
      if (length > 0xFFFFFF) return nullptr;
      length = length << 8 | *data++;
    }
  } else if (length == 0x80) {
    return nullptr;
  }
  if (room < 0 || length > static_cast<u32>(room)) return nullptr;
  *size = static_cast<int>(length);
  return data;
}

}  // namespace

void PrintTo(const Access& access, std::ostream* out) {
  *out << fmt::format("{} {:08x} {:04x}", access.direction, access.address, access.value);
}

FakeChassis::FakeChassis() {
  current = this;
  chassis::head = nullptr;
  chassis::pbbFpgaIf = reinterpret_cast<bbFpga_t*>(mainBoard_);
}

FakeChassis::~FakeChassis() {
  for (void* block : blocks) std::free(block);
  while (!openFiles.empty()) std::fclose(*openFiles.begin());
  chassis::head = nullptr;
}

QamCardPara* FakeChassis::start(u8 slotNo) {
  Qam_Init(slotNo);
  chassis::head->init(slotNo);
  forget();
  return static_cast<QamCardPara*>(chassis::head->varPtr);
}

Lines FakeChassis::landmarks() const {
  static const std::regex devices("(cdce925|lo1|lo2|att|rf_off|nrst).*");
  Lines all;
  for (const std::string& step : steps) {
    if (step.find('=') == std::string::npos && !step.ends_with("lock")) continue;
    const std::string name = std::regex_replace(step, devices, "$1");
    if (name == step || all.empty() || all.back() != name) all.push_back(name);
  }
  return all;
}

bool FakeChassis::runs(const std::function<void()>& body) {
  if (setjmp(wayOut_) != 0) return false;
  body();
  return true;
}

// The module's frames hold nothing that would need destruction.
void FakeChassis::leave() {
  std::longjmp(wayOut_, 1);
}

void* FakeChassis::busAddress(u32 address) {
  return windows_ + (address - kWindows) / 2;
}

u16& FakeChassis::held(u32 address) {
  return address >= kWindows ? windows_[(address - kWindows) / 2] : mainBoard_[(address - kMainBoard) / 2];
}

u16 FakeChassis::read(const volatile void* reg) {
  const u32 address = addressOf(reg);
  now += 100;
  const std::optional<u16> answer = onRead ? onRead(address) : std::nullopt;
  const u16 value = answer.value_or(held(address));
  accesses.push_back({'r', address, value});
  if (address >= kWindows) steps.push_back(fmt::format("{}?", headend::cardRegister(address & 0x1FF).name));
  return value;
}

void FakeChassis::write(volatile void* reg, u16 value) {
  const u32 address = addressOf(reg);
  now += 100;
  accesses.push_back({'w', address, value});
  held(address) = value;
  if (address >= kWindows)
    steps.push_back(fmt::format("{}={}", headend::cardRegister(address & 0x1FF).name, value));
  if (onWrite) onWrite(address, value);
}

u32 FakeChassis::addressOf(const volatile void* reg) const {
  const auto at = reinterpret_cast<std::uintptr_t>(reg);
  const auto windows = reinterpret_cast<std::uintptr_t>(windows_);
  if (at >= windows && at < windows + sizeof windows_) return kWindows + static_cast<u32>(at - windows);
  return kMainBoard + static_cast<u32>(at - reinterpret_cast<std::uintptr_t>(mainBoard_));
}

}  // namespace test

using test::current;

namespace os {

u16 busRead16(const volatile void* reg) {
  return current->read(reg);
}

void busWrite16(volatile void* reg, u16 value) {
  current->write(reg, value);
}

void* busAddress(u32 address) {
  return current->busAddress(address);
}

void checkFailed(const char* text, const char* unit, int line) {
  current->checks.push_back(fmt::format("{}: {}", unit, text));
  current->checkedLine = line;
  if (current->stopsAtChecks) current->leave();
}

std::FILE* fopen(const char* path, const char* mode) {
  current->note(fmt::format("open {} {}", path, mode));
  const auto found = current->files.find(path);
  if (found == current->files.end()) return nullptr;
  const test::Bytes& content = found->second;
  auto* file = new test::OpenFile{path, content, content.size() - current->unreadableTail};
  file->stream = fopencookie(file, mode, {test::readFile, nullptr, test::seekFile, test::closeFile});
  current->openFiles.insert(file->stream);
  return file->stream;
}

void* malloc(std::size_t size) {
  if (current->onCall) current->onCall("malloc");
  if (current->heapBlocks-- <= 0) return nullptr;
  void* block = std::malloc(size);
  std::memset(block, current->heapFill, size);
  current->blocks.insert(block);
  return block;
}

void free(void* block) {
  EXPECT_EQ(current->blocks.erase(block), 1U) << "freed, but not allocated";
  std::free(block);
}

int socket(int domain, int type, int protocol) {
  current->note(fmt::format("socket {} {} {}", domain, type, protocol));
  return current->socketsToBeHad ? 3 : ERROR;
}

int bind(int s, sockaddr_in* name, int length) {
  current->note(fmt::format("bind {} family {} port {} address {} length {} {}", s, name->sin_family,
                            u16{name->sin_port}, u32{name->sin_addr}, name->sin_len, length));
  return current->portsToBeHad ? OK : ERROR;
}

int recvfrom(int /*s*/, char* buffer, int length, int /*flags*/, sockaddr_in* from, int* fromLength) {
  EXPECT_EQ(*fromLength, 16);
  if (current->datagrams.empty()) current->leave();
  const std::optional<test::Bytes> datagram = current->datagrams.front();
  current->datagrams.pop_front();
  if (!datagram) return ERROR;
  const auto count = std::min(datagram->size(), static_cast<std::size_t>(length));
  std::copy_n(datagram->begin(), count, buffer);
  *from = {.sin_len = 16, .sin_family = AF_INET, .sin_port = {}, .sin_addr = {}, .sin_zero = {}};
  from->sin_port = 7;
  from->sin_addr = 0xC0000201;
  return static_cast<int>(count);
}

int sendto(int s, char* buffer, int length, int /*flags*/, sockaddr_in* to, int toLength) {
  std::string bytes;
  for (int i = 0; i < length; ++i) bytes += fmt::format(" {:02x}", static_cast<u8>(buffer[i]));
  current->note(fmt::format("send {} to {:08x}:{} length {}:{}", s, u32{to->sin_addr}, u16{to->sin_port},
                            toLength, bytes));
  return length;
}

int close(int s) {
  current->note(fmt::format("close socket {}", s));
  return OK;
}

void countingLoop(u32 turns) {
  current->now += 10 * std::int64_t{turns};
  current->steps.push_back(fmt::format("{} turns", turns));
}

extern "C" {

int taskSpawn(const char* name, int priority, int options, int stackSize, FUNCPTR entry, int arg1, int arg2,
              int arg3, int arg4, int arg5, int arg6, int arg7, int arg8, int arg9, int arg10) {
  current->note(fmt::format("spawn {} {} {} {} ({} {} {} {} {} {} {} {} {} {})", name, priority, options,
                            stackSize, arg1, arg2, arg3, arg4, arg5, arg6, arg7, arg8, arg9, arg10));
  current->tasks.push_back({entry, arg1, arg2});
  return 1;
}

int taskDelay(int ticks) {
  if (current->onCall) current->onCall("delay");
  current->note(fmt::format("delay {}", ticks));
  current->steps.push_back(fmt::format("{} ticks", ticks));
  current->now += 1'000'000'000LL * ticks / current->tickHz;
  return OK;
}

int taskLock() {
  current->steps.emplace_back("lock");
  return OK;
}
int taskUnlock() {
  current->steps.emplace_back("unlock");
  return OK;
}

int semTake(SEM_ID semaphore, int timeout) {
  EXPECT_EQ(timeout, WAIT_FOREVER);
  current->note(semaphore == nullptr ? "take null" : "take");
  return semaphore == nullptr ? ERROR : OK;
}
int semGive(SEM_ID semaphore) {
  current->note(semaphore == nullptr ? "give null" : "give");
  return semaphore == nullptr ? ERROR : OK;
}

int sysClkRateGet() {
  return current->tickHz;
}

MSG_Q_ID msgQCreate(int maxMsgs, int maxMsgLength, int options) {
  current->note(fmt::format("queue {} {} {}", maxMsgs, maxMsgLength, options));
  if (!current->queuesToBeHad) return nullptr;
  return current->queues.emplace_back(std::make_unique<test::Queue>())->handle();
}

int msgQSend(MSG_Q_ID queue, char* buffer, unsigned length, int timeout, int priority) {
  EXPECT_EQ(length, 4U);
  EXPECT_EQ(timeout, NO_WAIT) << "an interrupt routine cannot wait";
  EXPECT_EQ(priority, MSG_PRI_NORMAL);
  test::Queue& sent = test::Queue::of(queue);
  if (sent.room == 0) return ERROR;
  --sent.room;
  std::memcpy(&sent.messages.emplace_back(), buffer, sizeof(u32));
  return OK;
}

int msgQReceive(MSG_Q_ID queue, char* buffer, unsigned maxLength, int timeout) {
  EXPECT_EQ(maxLength, 4U);
  EXPECT_TRUE(timeout == NO_WAIT || timeout == WAIT_FOREVER);
  const bool empty = queue == nullptr || test::Queue::of(queue).messages.empty();
  if (empty && timeout == NO_WAIT) return ERROR;
  if (empty) current->leave();
  std::vector<u32>& messages = test::Queue::of(queue).messages;
  std::memcpy(buffer, &messages.front(), sizeof(u32));
  messages.erase(messages.begin());
  return sizeof(u32);
}

}  // extern "C"
}  // namespace os

namespace chassis {
extern "C" {

card* head = nullptr;
bbFpga_t* pbbFpgaIf = nullptr;

void cardInsert(card* newCard) {
  current->note(fmt::format("insert {}", newCard->slotNo));
  newCard->next = head;
  head = newCard;
}

void configOneSlotBus(u8 slotNo, int arg1, int arg2) {
  current->note(fmt::format("configure bus {} {} {}", slotNo, arg1, arg2));
}

void setCardType(u8 slotNo, int typeCode) {
  current->note(fmt::format("card type {} {}", slotNo, typeCode));
}

card* GetCardPoint(u8 slotNo) {
  card* found = head;
  while (found != nullptr && found->slotNo != slotNo) found = found->next;
  return found;
}

int set_one_map(u8 slotNo, u8 port, u16 index, const u16* words) {
  auto& route = current->routes[{slotNo, port}];
  if (index == 0) {
    route.clear();
    current->note(fmt::format("route {} {}", slotNo, port));
  }
  EXPECT_EQ(index, route.size());
  route.push_back({words[0], words[1], words[2]});
  return os::ERROR;  // nobody is to mind
}

int para_save(u8 slotNo) {
  if (current->onCall) current->onCall("save");
  current->note(fmt::format("save {}", slotNo));
  return 0;
}

void menuRegister(item_t* root) {
  current->note(fmt::format("menu {} {}", root->val, root->en.text));
}

void menuDispItem(const item_t* item, int arg2, u32 attribute) {
  current->note(fmt::format("heading {} {} {:x}", item->en.text, arg2, attribute));
}

void lcdPrintf(int row, int column, u32 attribute, u32 mask, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  current->note(fmt::format("lcd {} {} {:x} {:x} {}", row,
                            column == kPanelWholeLine ? "whole" : std::to_string(column), attribute, mask,
                            test::formatted(format, arguments)));
  va_end(arguments);
}

u8 keyScan() {
  if (!current->onKeyScan) current->leave();
  return current->onKeyScan();
}

void AddAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTitle, const char* zhContent, const char* enTitle,
                const char* enContent, const char* zhTrap, const char* enTrap) {
  current->note(fmt::format("raise {} {} {} {}|{}|{}|{}|{}|{}", slotNo, port, type, test::utf8(zhTitle),
                            test::utf8(zhContent), enTitle, enContent, test::utf8(zhTrap), enTrap));
  current->alarms.emplace(slotNo, port, type);
}

void DelAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTrap, const char* enTrap) {
  current->note(fmt::format("end {} {} {} {}|{}", slotNo, port, type, test::utf8(zhTrap), enTrap));
  current->alarms.erase({slotNo, port, type});
}

int IsAlarmExist(u8 slotNo, u8 port, u16 type, int arg4) {
  EXPECT_EQ(arg4, 0);
  current->note(fmt::format("raised? {} {} {}", slotNo, port, type));
  return current->alarms.contains({slotNo, port, type}) ? -1 : 0;
}

// Not the order of the slots.
u8 out_port_to_mbrd_out(u8 slotNo, u8 port) {
  return static_cast<u8>(15 - 2 * slotNo - port);
}

void Delay5us() {
  current->now += 5'000;
  current->steps.emplace_back("5us");
}
void delay5us() {
  current->now += 5'000;
  current->steps.emplace_back("5us'");
}
void Dog() {
  current->steps.emplace_back("dog");
}

void DebugPrint(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  current->note("debug " + test::formatted(format, arguments));
  va_end(arguments);
}

int bc_vars_register(u32 base, u32 limit, const bc_var* table, const char* text) {
  current->note(fmt::format("variables {:08x} {:08x} {}", base, limit, text));
  current->variables = table;
  return 0;
}

void mib_register(const u32* oid_base, int oid_base_len, const variable4* rows, int count, int rowSize) {
  current->mibBase.assign(oid_base, oid_base + oid_base_len);
  current->note(fmt::format("mib {} {} rows of {}", fmt::join(current->mibBase, "."), count, rowSize));
  const auto* bytes = reinterpret_cast<const u8*>(rows);
  current->mibRows.resize(static_cast<std::size_t>(count));
  for (variable4& row : current->mibRows) {
    std::memcpy(&row, bytes, sizeof row);
    bytes += rowSize;
  }
}

}  // extern "C"

int compare(const u32* name1, int length1, const u32* name2, int length2) {
  const auto order = std::lexicographical_compare_three_way(name1, name1 + length1, name2, name2 + length2);
  return std::is_lt(order) ? -1 : std::is_gt(order) ? 1 : 0;
}

u8* asn_parse_string(u8* data, int* datalength, u8* type, u8* string, int* strlength) {
  int size = 0;
  u8* content = test::contentOf(data, ASN_OCTET_STR, std::min(*datalength, *strlength), &size);
  if (content == nullptr) return nullptr;
  *type = ASN_OCTET_STR;
  std::copy_n(content, size, string);
  *strlength = size;
  *datalength -= size;
  return content + size;
}

u8* asn_parse_unsigned_int(u8* data, int* datalength, u8* type, u32* number, int numberSize) {
  EXPECT_EQ(numberSize, 4);
  int size = 0;
  u8* content = test::contentOf(data, ASN_INTEGER, *datalength, &size);
  if (content == nullptr || size == 0) return nullptr;
  if (size > numberSize && (size > numberSize + 1 || *content != 0)) return nullptr;
  *type = ASN_INTEGER;
  *number = *content >= 0x80 ? 0xFFFFFFFF : 0;  // the sign
  for (int i = 0; i < size; ++i) *number = *number << 8 | content[i];
  *datalength -= size;
  return content + size;
}

}  // namespace chassis
