#include "tests/module/chassis.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <regex>
#include <span>

#ifdef QAM_TRAPPED_BUS
#include <sys/mman.h>

#include <csignal>
#endif

#include "base/text.h"
#include "card/QamInit.h"
#include "headend/hardware/card_registers.h"
#include "platform/alarms.h"
#include "platform/bus.h"
#include "platform/check.h"
#include "platform/files.h"
#include "platform/memory.h"
#include "platform/sockets.h"

namespace {

test::FakeChassis* current = nullptr;

template <typename... Values>
void note(fmt::format_string<Values...> format, Values&&... values) {
  current->log.push_back(fmt::format(format, std::forward<Values>(values)...));
  current->trace << current->log.back() << '\n';
}
void step(std::string what) {
  current->trace << what << '\n';
  current->steps.push_back(std::move(what));
}

std::string formatted(const char* format, va_list arguments) {
  char text[200];
  std::vsnprintf(text, sizeof text, format, arguments);
  return text;
}

// As the panel's LCD shows it: the controller's C library converts no GBK. U+FFFD for what its font does not
// have.
std::string utf8OfGbk(std::string_view gbk) {
  std::string utf8;
  while (!gbk.empty()) {
    const std::string_view row = headend::cutToFit(gbk, protocol::kLcdWidth);
    headend::Lcd lcd;
    lcd.print(0, 0, ~u32{0}, row);  // inverse, for then a blank is a character too
    for (const auto& shown : lcd.shown().characters) base::appendUtf8(utf8, shown.character);
    gbk.remove_prefix(row.size());
  }
  return utf8;
}

#ifdef QAM_TRAPPED_BUS
// ---- Registers as memory that the kernel guards: which instructions access them? ----

// Carries out the 16-bit load or store (ARM Architecture Reference Manual, A5.3: LDRH, STRH) at which the
// processor has stopped. Any other access to a register ends the test.
void carryOutAccess(int signal, siginfo_t* fault, void* state) {
  mcontext_t& cpu = static_cast<ucontext_t*>(state)->uc_mcontext;
  const auto address = static_cast<u32>(reinterpret_cast<std::uintptr_t>(fault->si_addr));
  const auto window = static_cast<u32>(reinterpret_cast<std::uintptr_t>(current->pointerTo(test::kWindows)));
  if (address - window >= test::kBusSize) {
    std::signal(signal, SIG_DFL);  // an error of another kind, which happens again
    return;
  }
  const u32 instruction = *reinterpret_cast<const u32*>(cpu.arm_pc);
  const auto field = [instruction](unsigned lowestBit) { return instruction >> lowestBit & 0xFU; };
  const auto bit = [instruction](unsigned number) { return (instruction >> number & 1U) != 0; };
  constexpr u32 kMask = 0x0E0000F0, kHalfword = 0x000000B0, kThumb = 1U << 5;
  if ((cpu.arm_cpsr & kThumb) != 0 || (instruction & kMask) != kHalfword) {
    std::fprintf(stderr, "Instruction %08x at %lx is not a 16-bit access to register %08x.\n", instruction,
                 cpu.arm_pc, test::kWindows + address - window);
    std::_Exit(1);
  }
  const bool preIndexed = bit(24), addsOffset = bit(23), isImmediate = bit(22), writesBack = bit(21),
             isLoad = bit(20);
  unsigned long* const registers = &cpu.arm_r0;  // r0 to r15 follow each other
  const u32 reg = test::kWindows + address - window;
  const unsigned long offset = isImmediate ? field(8) << 4U | field(0) : registers[field(0)];
  if (isLoad)
    registers[field(12)] = current->read(reg);
  else
    current->write(reg, static_cast<u16>(registers[field(12)]));
  if (!preIndexed || writesBack) registers[field(16)] += addsOffset ? offset : -offset;
  cpu.arm_pc += sizeof instruction;
}

u16* guardedWindow() {
  static u16* const window = [] {
    struct sigaction action {};
    action.sa_sigaction = carryOutAccess;
    action.sa_flags = SA_SIGINFO | SA_NODEFER;  // `leave` does not return from it
    sigaction(SIGSEGV, &action, nullptr);
    return static_cast<u16*>(mmap(nullptr, test::kBusSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  }();
  return window;
}
#endif

// Of the main board's registers those of the configuration ports.
std::string nameOf(u32 address) {
  if (address < test::kMainBoard) return std::string(headend::cardRegister(address & 0x1FF).name);
  constexpr std::array kPort{"ncfg", "dclk", "data", "stat", "done", "guard", "", ""};
  return fmt::format("port{}.{}", address >> 4 & 0xF, kPort.at(address / 2 % 8));
}

}  // namespace

namespace test {

#ifdef QAM_TRAPPED_BUS
FakeChassis::FakeChassis() : window_(guardedWindow()) {
#else
FakeChassis::FakeChassis() : window_(bus_) {
#endif
  current = this;
  chassis::head = nullptr;
  chassis::pbbFpgaIf = reinterpret_cast<bbFpga_t*>(pointerTo(kMainBoard));
  if (const char* folder = std::getenv("QAM_TRACES"); folder != nullptr) {
    const testing::TestInfo& test = *testing::UnitTest::GetInstance()->current_test_info();
    trace.open(fmt::format("{}/{}.{}", folder, test.test_suite_name(), test.name()), std::ios::app);
  }
}

FakeChassis::~FakeChassis() {
  for (const auto& [kind, count] : violations.counts()) ADD_FAILURE() << kind << ": " << count;
  const fs::recursive_directory_iterator files(flash.path);
  for (const fs::path& file : std::set<fs::path>(begin(files), end(files))) {
    if (fs::is_regular_file(file)) trace << file.filename() << readText(file);
  }
  for (void* block : blocks) std::free(block);
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

u16 FakeChassis::read(u32 address) {
  now += 100;
  step(nameOf(address) + '?');
  std::optional<u16> answer = onRead ? onRead(address) : std::nullopt;
  if (!answer && hasDevices && address < kMainBoard) answer = board.sense(address & 0x1FF, now);
  return answer.value_or(cell(address));
}

void FakeChassis::write(u32 address, u16 value) {
  now += 100;
  step(fmt::format("{}={}", nameOf(address), value));
  cell(address) = value;
  if (hasDevices && address < kMainBoard) board.drive(address & 0x1FF, (value & 1) != 0, now);
}

}  // namespace test

namespace os {

#ifndef QAM_TRAPPED_BUS
u16 busRead16(const volatile void* reg) {
  return current->read(current->addressOf(reg));
}
void busWrite16(volatile void* reg, u16 value) {
  current->write(current->addressOf(reg), value);
}
#endif

void* busAddress(u32 address) {
  return current->pointerTo(address);
}

void checkFailed(const char* text, const char* unit, int line) {
  current->checks.push_back(fmt::format("{}: {}", unit, text));
  current->checkedLine = line;
  if (current->stopsAtChecks) current->leave();
}

std::FILE* fopen(const char* path, const char* mode) {
  note("open {} {}", path, mode);
  return std::fopen((current->flash.path.string() + path).c_str(), mode);
}

void* malloc(std::size_t size) {
  current->onCall("malloc");
  if (current->heapBlocks-- <= 0) return nullptr;
  void* block = std::malloc(size);
  std::memset(block, 0xA7, size);
  current->blocks.insert(block);
  return block;
}

void free(void* block) {
  EXPECT_EQ(current->blocks.erase(block), 1U) << "freed, but not allocated";
  std::free(block);
}

int socket(int domain, int type, int protocol) {
  note("socket {} {} {}", domain, type, protocol);
  return current->socketsToBeHad ? 3 : ERROR;
}

int bind(int s, sockaddr_in* name, int length) {
  note("bind {} family {} port {} address {} length {} {}", s, name->sin_family, u16{name->sin_port},
       u32{name->sin_addr}, name->sin_len, length);
  return current->portsToBeHad ? OK : ERROR;
}

int recvfrom(int /*s*/, char* buffer, int length, int flags, sockaddr_in* from, int* fromLength) {
  EXPECT_EQ(*fromLength, 16);
  EXPECT_EQ(flags, 0);
  if (current->datagrams.empty()) current->leave();
  const std::optional<test::Bytes> datagram = current->datagrams.front();
  current->datagrams.pop_front();
  if (!datagram) return ERROR;
  const auto count = std::min(datagram->size(), static_cast<std::size_t>(length));
  std::copy_n(datagram->begin(), count, buffer);
  from->sin_port = 7;
  return static_cast<int>(count);
}

int sendto(int s, char* buffer, int length, int flags, sockaddr_in* to, int toLength) {
  EXPECT_EQ(flags, 0);
  const std::span bytes(reinterpret_cast<const u8*>(buffer), static_cast<std::size_t>(length));
  note("send {} to {} length {}: {}", s, u16{to->sin_port}, toLength, fmt::join(bytes, " "));
  return length;
}

int close(int s) {
  note("close socket {}", s);
  return OK;
}

void countingLoop(u32 turns) {
  current->now += 10 * std::int64_t{turns};
  step(fmt::format("{} turns", turns));
}

extern "C" {

int taskSpawn(const char* name, int priority, int options, int stackSize, FUNCPTR entry, int arg1, int arg2,
              int arg3, int arg4, int arg5, int arg6, int arg7, int arg8, int arg9, int arg10) {
  const int others[] = {arg3, arg4, arg5, arg6, arg7, arg8, arg9, arg10};
  note("spawn {} {} {} {} ({} {} {})", name, priority, options, stackSize, arg1, arg2, fmt::join(others, ""));
  current->tasks.emplace_back([=] { entry(arg1, arg2, arg3, arg4, arg5, arg6, arg7, arg8, arg9, arg10); });
  return 1;
}

int taskDelay(int ticks) {
  current->onCall("delay");
  note("delay {}", ticks);
  step(fmt::format("{} ticks", ticks));
  current->now += 1'000'000'000LL * ticks / current->tickHz;
  return OK;
}

int taskLock() {
  step("lock");
  return OK;
}
int taskUnlock() {
  step("unlock");
  return OK;
}

int semTake(SEM_ID /*semaphore*/, int timeout) {
  EXPECT_EQ(timeout, WAIT_FOREVER);
  note("take");
  return OK;
}
int semGive(SEM_ID /*semaphore*/) {
  note("give");
  return OK;
}

int sysClkRateGet() {
  return current->tickHz;
}

MSG_Q_ID msgQCreate(int maxMsgs, int maxMsgLength, int options) {
  note("queue {} {} {}", maxMsgs, maxMsgLength, options);
  if (!current->queuesToBeHad) return nullptr;
  return current->queues.emplace_back(std::make_unique<test::Queue>())->handle();
}

int msgQSend(MSG_Q_ID queue, char* buffer, unsigned length, int timeout, int priority) {
  EXPECT_TRUE(length == 4 && timeout == NO_WAIT && priority == MSG_PRI_NORMAL);
  test::Queue& sent = test::Queue::of(queue);
  if (sent.room == 0) return ERROR;
  --sent.room;
  std::memcpy(&sent.messages.emplace_back(), buffer, sizeof(u32));
  current->trace << "send " << sent.messages.back() << '\n';
  return OK;
}

int msgQReceive(MSG_Q_ID queue, char* buffer, unsigned maxLength, int timeout) {
  EXPECT_TRUE(maxLength == 4 && (timeout == NO_WAIT || timeout == WAIT_FOREVER));
  if (queue == nullptr) return ERROR;
  std::vector<u32>& messages = test::Queue::of(queue).messages;
  if (messages.empty() && timeout == NO_WAIT) return ERROR;
  if (messages.empty()) current->leave();
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
  note("insert {}", newCard->slotNo);
  newCard->next = head;
  head = newCard;
}

void configOneSlotBus(u8 slotNo, int arg1, int arg2) {
  note("configure bus {} {} {}", slotNo, arg1, arg2);
}

void setCardType(u8 slotNo, int typeCode) {
  note("card type {} {}", slotNo, typeCode);
}

card* GetCardPoint(u8 slotNo) {
  card* found = head;
  while (found != nullptr && found->slotNo != slotNo) found = found->next;
  return found;
}

int set_one_map(u8 slotNo, u8 port, u16 index, const u16* words) {
  auto& route = current->routes[{slotNo, port}];
  if (index == 0) note("route {} {}", slotNo, port);
  route.resize(index);
  route.push_back({words[0], words[1], words[2]});
  return os::ERROR;  // the module ignores it
}

int para_save(u8 slotNo) {
  current->onCall("save");
  note("save {}", slotNo);
  return 0;
}

void menuRegister(item_t* root) {
  note("menu {} {}", root->val, root->en.text);
}

void menuDispItem(const item_t* item, int arg2, u32 attribute) {
  note("heading {} {} {:x}", item->en.text, arg2, attribute);
  current->lcd.clear();
}

void lcdPrintf(int row, int column, u32 attribute, u32 mask, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const std::string text = formatted(format, arguments);
  va_end(arguments);
  if (column == kPanelWholeLine) note("lcd {} {:x} {:x} {}", row, attribute, mask, text);
  current->lcd.print(row, column, mask, text);
}

u8 keyScan() {
  return current->onKeyScan();
}

void AddAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTitle, const char* zhContent, const char* enTitle,
                const char* enContent, const char* zhTrap, const char* enTrap) {
  note("raise {} {} {} {}|{}|{}|{}|{}|{}", slotNo, port, type, utf8OfGbk(zhTitle), utf8OfGbk(zhContent),
       enTitle, enContent, utf8OfGbk(zhTrap), enTrap);
  current->alarms.emplace(slotNo, port, type);
}

void DelAnAlarm(u8 slotNo, u8 port, u16 type, const char* zhTrap, const char* enTrap) {
  note("end {} {} {} {}|{}", slotNo, port, type, utf8OfGbk(zhTrap), enTrap);
  current->alarms.erase({slotNo, port, type});
}

int IsAlarmExist(u8 slotNo, u8 port, u16 type, int arg4) {
  EXPECT_EQ(arg4, 0);
  return current->alarms.contains({slotNo, port, type}) ? -1 : 0;
}

// Not the order of the slots.
u8 out_port_to_mbrd_out(u8 slotNo, u8 port) {
  return static_cast<u8>(current->firstOutput - 2 * slotNo - port);
}

void Delay5us() {
  current->now += 5'000;
  step("5us");
}
void delay5us() {
  current->now += 5'000;
  step("5us'");
}
void Dog() {
  step("dog");
}

void DebugPrint(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  note("debug {}", formatted(format, arguments));
  va_end(arguments);
}

int bc_vars_register(u32 base, u32 limit, const bc_var* table, const char* text) {
  note("variables {:08x} {:08x} {}", base, limit, text);
  current->variables = table;
  return 0;
}

void mib_register(const u32* oid_base, int oid_base_len, const variable4* rows, int count, int rowSize) {
  EXPECT_EQ(rowSize, sizeof *rows);
  note("mib {}", fmt::join(oid_base, oid_base + oid_base_len, "."));
  current->mibRows.assign(rows, rows + count);
}

}  // extern "C"
}  // namespace chassis
