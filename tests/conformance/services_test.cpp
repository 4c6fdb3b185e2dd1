// The checks of qamcard/conformance.h in the virtual headend: all pass, and a broken service fails the row
// that is its own, and no other.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <optional>
#include <set>
#include <sstream>
#include <string_view>

#include "card/QamFpga.h"
#include "platform/chassis.h"
#include "platform/kernel.h"
#include "qamcard/conformance.h"
#include "qamcard/qamcard.h"
#include "tests/headend/headend_run.h"

// clang-format off
// Each service that can be broken: its symbol, its name here, and its type.
#define SERVICES(X) \
  X("taskSpawn", spawn, int, (const char* name, int priority, int options, int stack, os::FUNCPTR entry, \
                              int a, int b, int c, int d, int e, int f, int g, int h, int i, int j), \
    (name, priority, options, stack, entry, a, b, c, d, e, f, g, h, i, j)) \
  X("taskDelay", delay, int, (int ticks), (ticks)) \
  X("taskLock", lock, int, (), ()) \
  X("taskUnlock", unlock, int, (), ()) \
  X("sysClkRateGet", rate, int, (), ()) \
  X("msgQCreate", create, os::MSG_Q_ID, (int n, int length, int options), (n, length, options)) \
  X("msgQSend", send, int, (os::MSG_Q_ID q, char* p, unsigned n, int t, int priority), (q, p, n, t, priority)) \
  X("msgQReceive", receive, int, (os::MSG_Q_ID q, char* p, unsigned n, int t), (q, p, n, t)) \
  X("semTake", take, int, (os::SEM_ID m, int t), (m, t)) \
  X("semGive", give, int, (os::SEM_ID m), (m)) \
  X("keyScan", key, u8, (), ()) \
  X("para_save", save, int, (u8 slot), (slot)) \
  X("fread", read, std::size_t, (void* p, std::size_t size, std::size_t n, std::FILE* f), (p, size, n, f)) \
  X("ftell", tell, long, (std::FILE* f), (f)) \
  X(OS_MALLOC, malloc, void*, (std::size_t n), (n)) \
  X("_ZN2os4freeEPv", free, void, (void* p), (p)) \
  X("_ZN2os5fopenEPKcS1_", open, std::FILE*, (const char* path, const char* mode), (path, mode)) \
  X("_ZN2os9busRead16EPVKv", busRead, u16, (const volatile void* reg), (reg)) \
  X("_ZN2os10busWrite16EPVvt", busWrite, void, (volatile void* reg, u16 value), (reg, value)) \
  X("_ZN7chassis7compareEPKjiS1_i", compare, int, (const u32* a, int n, const u32* b, int m), (a, n, b, m)) \
  X("_ZN7chassis16asn_parse_stringEPhPiS0_S0_S1_", string, u8*, \
    (u8* p, int* n, u8* type, u8* text, int* size), (p, n, type, text, size)) \
  X("_ZN7chassis22asn_parse_unsigned_intEPhPiS0_Pji", number, u8*, \
    (u8* p, int* n, u8* type, u32* value, int size), (p, n, type, value, size))

// The headend's services; the broken ones in their place; and what the linker gives to callers, which calls these.
#define REAL(symbol, name, result, parameters, values) result name parameters asm("__real_" symbol);
// NOLINTNEXTLINE(bugprone-macro-parentheses)
#define BROKEN(symbol, name, result, parameters, values) decltype(&real::name) name = real::name;
#define WRAPPER(symbol, name, result, parameters, values) \
  result name parameters asm("__wrap_" symbol); \
  result name parameters { return test::services.name values; }
// clang-format on

namespace test {
namespace real {
SERVICES(REAL)
}
struct Services {
  SERVICES(BROKEN)
  void (*print)(std::size_t length) = [](std::size_t) {};
};

namespace {
Services services;
std::string printed;  // by the checks
}  // namespace
}  // namespace test

namespace wrapper {
SERVICES(WRAPPER)

void print(const char* format, ...) asm("__wrap_DebugPrint");
void print(const char* format, ...) {
  std::va_list values;
  va_start(values, format);
  std::array<char, 512> text{};
  std::vsnprintf(text.data(), text.size(), format, values);
  va_end(values);
  test::printed += text.data();
  test::services.print(std::strlen(text.data()));
}
}  // namespace wrapper

namespace test {
namespace {

headend::Kernel* kernel;
fs::path records;  // the folder of the parameter files
int run_number;    // a busy loop ends in the next run

// Of this run.
int locks, saves;
std::optional<char> held;  // a message

// Longer than a check may take: its end comes while another check runs.
int hang() {
  return real::delay(5 * real::rate() + 3);
}
int waitInALoop() {
  for (const int mine = run_number; run_number == mine; chassis::Dog()) chassis::Delay5us();
  return 0;
}

bool isTest(const volatile void* reg) {
  const auto* cell = static_cast<const volatile Reg16*>(reg);
  return cell >= std::begin(QamFpgaIf[0]->Test) && cell < std::end(QamFpgaIf[0]->Test);
}

bool begins(const char* buffer, std::string_view text) {
  return std::string_view(buffer, text.size()) == text;
}

fs::path record() {
  return records / "card1.dat";
}

int sendSecondFirst(os::MSG_Q_ID q, char* p, unsigned n, int t, int priority) {
  if (q != nullptr && n == 1 && *p == 'a') return held = *p, 0;
  const int result = real::send(q, p, n, t, priority);
  if (held) real::send(q, &*held, 1, 0, 0);
  held.reset();
  return result;
}

int sendLater(os::MSG_Q_ID q, char* p, unsigned n, int t, int priority) {
  if (!begins(p, "wake")) return real::send(q, p, n, t, priority);
  kernel->spawn("tLater", 250, [q, text = std::string(p, n)]() mutable {
    real::send(q, text.data(), static_cast<unsigned>(text.size()), 0, 0);
  });
  return 0;
}

struct Break {
  const char* row;  // which fails
  const char* what;
  void (*install)(Services& broken);
};

// clang-format off
const Break kBreaks[] = {
    {"task.arguments", "the third argument is lost", [](Services& s) {
       s.spawn = [](auto name, auto priority, auto o, auto stack, auto entry, auto a, auto b, auto, auto... more) {
         return real::spawn(name, priority, o, stack, entry, a, b, 0, more...); }; }},
    {"task.priority", "numbers from 240 on are a high priority", [](Services& s) {
       s.spawn = [](auto name, auto p, auto... more) { return real::spawn(name, p >= 240 ? 100 : p, more...); }; }},
    {"task.lock", "taskLock does nothing", [](Services& s) { s.lock = [] { return 0; }; }},
    {"task.lock", "taskUnlock ends all locks", [](Services& s) { s.unlock = [] { return real::unlock() + real::unlock(); }; }},
    {"task.lock", "a locked task does not wait", [](Services& s) {
       s.lock = [] { return ++locks, real::lock(); };
       s.unlock = [] { return --locks, real::unlock(); };
       s.delay = [](auto ticks) { return locks > 0 ? 0 : real::delay(ticks); }; }},
    {"task.delay", "long delays are a tick short", [](Services& s) {
       s.delay = [](auto ticks) { return real::delay(ticks < 10 ? ticks : ticks - 1); }; }},
    {"task.yield", "no delay, no switch", [](Services& s) { s.delay = [](auto n) { return n == 0 ? 0 : real::delay(n); }; }},
    {"clock.rate", "60 Hz", [](Services& s) { s.rate = [] { return 60; }; }},
    {"queue.order", "the first message comes second", [](Services& s) { s.send = sendSecondFirst; }},
    {"queue.length", "a long message is cut", [](Services& s) {
       s.send = [](auto q, auto p, auto n, auto... more) { return real::send(q, p, n == 5 ? 4 : n, more...); }; }},
    {"queue.length", "a receive writes the whole message", [](Services& s) {
       s.receive = [](auto q, auto p, auto n, auto t) { return real::receive(q, p, std::max(n, 4U), t); }; }},
    {"queue.full", "a send does not wait", [](Services& s) {
       s.send = [](auto q, auto p, auto n, auto, auto priority) { return real::send(q, p, n, 0, priority); }; }},
    {"queue.empty", "a receive waits for a tick only", [](Services& s) {
       s.receive = [](auto q, auto p, auto n, auto t) { return real::receive(q, p, n, t == 3 ? 1 : t); }; }},
    {"queue.wait", "no limit is no wait", [](Services& s) {
       s.receive = [](auto q, auto p, auto n, auto t) { return real::receive(q, p, n, std::max(t, 0)); }; }},
    {"queue.wait", "a receive hangs", [](Services& s) {
       s.receive = [](auto q, auto p, auto... more) {
         const int length = real::receive(q, p, more...);
         return begins(p, "late") ? hang() : length; }; }},
    {"queue.wake", "the receiver runs only when the sender waits", [](Services& s) { s.send = sendLater; }},
    {"queue.interrupt", "an interrupt routine may not send", [](Services& s) {
       s.send = [](auto... all) { return kernel->runningName() == "interrupt" ? -1 : real::send(all...); }; }},
    {"queue.null", "a send to null succeeds", [](Services& s) {
       s.send = [](auto q, auto... more) { return q == nullptr ? 0 : real::send(q, more...); }; }},
    {"queue.null", "a receive from null gives an empty message", [](Services& s) {
       s.receive = [](auto q, auto... more) { return q == nullptr ? 0 : real::receive(q, more...); }; }},
    {"semaphore.again", "the owner does not get it again", [](Services& s) {
       s.take = [](auto m, auto t) { return t == 0 ? -1 : real::take(m, t); }; }},
    {"semaphore.again", "the first give ends all", [](Services& s) {
       s.give = [](auto m) { return m == nullptr ? -1 : std::max(real::give(m), real::give(m)); }; }},
    {"semaphore.wait", "a take for some ticks does not wait", [](Services& s) {
       s.take = [](auto m, auto t) { return real::take(m, std::min(t, 0)); }; }},
    {"semaphore.wait", "a take without a limit does not wait", [](Services& s) {
       s.take = [](auto m, auto t) { return m != nullptr && t < 0 ? std::max(0, real::take(m, 0)) : real::take(m, t); }; }},
    {"semaphore.null", "a take of null succeeds", [](Services& s) {
       s.take = [](auto m, auto t) { return m == nullptr ? 0 : real::take(m, t); }; }},
    {"semaphore.null", "a give of null succeeds", [](Services& s) {
       s.give = [](auto m) { return m == nullptr ? 0 : real::give(m); }; }},
    {"memory.none", "never null", [](Services& s) { s.malloc = [](auto n) { return real::malloc(n > 4096 ? 4096 : n); }; }},
    {"memory.alignment", "addresses of words", [](Services& s) {
       s.malloc = [](auto n) -> void* { return n > 99 ? real::malloc(n) : static_cast<u8*>(real::malloc(n + 4)) + 4; };
       s.free = [](auto p) { real::free(p == nullptr ? p : static_cast<u8*>(p) - 4); }; }},
    {"memory.null", "free(null) hangs", [](Services& s) { s.free = [](auto p) { p == nullptr ? void(hang()) : real::free(p); }; }},
    {"file.missing", "rb+ creates a file", [](Services& s) {
       s.open = [](auto path, auto mode) {
         std::FILE* file = real::open(path, mode);
         if (file == nullptr && begins(mode, "rb+")) std::fclose(real::open(path, "wb"));
         return file; }; }},
    {"file.short", "nothing of a short read", [](Services& s) {
       s.read = [](auto p, auto size, auto n, auto f) { return real::read(p, size, n, f) == n ? n : 0; }; }},
    {"file.seek", "positions only of whole sectors", [](Services& s) {
       s.tell = [](auto f) { return real::tell(f) < 512 ? 0 : real::tell(f); }; }},
    {"save.content", "the second save is left out", [](Services& s) {
       s.save = [](auto slot) { return ++saves == 2 ? 0 : real::save(slot); }; }},
    {"save.content", "a byte less", [](Services& s) {
       s.save = [](auto slot) {
         const int result = real::save(slot);
         if (++saves == 1) fs::resize_file(record(), fs::file_size(record()) - 1);
         return result; }; }},
    {"save.content", "an error after all", [](Services& s) { s.save = [](auto slot) { return real::save(slot) - 1; }; }},
    {"save.whole", "the file is written in place", [](Services& s) {
       s.save = [](auto slot) { return fs::resize_file(record(), 1000), real::delay(3), real::save(slot); }; }},
    {"save.rest", "a temporary file remains", [](Services& s) {
       s.save = [](auto slot) { return writeFile(records / "card1.dat.tmp", Bytes(1)), real::save(slot); }; }},
    {"panel.keyScan", "keyScan does not sleep", [](Services& s) { s.key = [] { return u8{0}; }; }},
    {"panel.keyScan", "a loop of keyScan hangs", [](Services& s) { s.key = [] { return static_cast<u8>(waitInALoop()); }; }},
    {"print.long", "a long line hangs", [](Services& s) { s.print = [](std::size_t length) { if (length > 121) hang(); }; }},
    {"agent.compare", "components are signed", [](Services& s) {
       s.compare = [](auto a, auto n, auto b, auto m) {
         return n == m && (a[n - 1] ^ b[n - 1]) >> 31 != 0 ? real::compare(b, m, a, n) : real::compare(a, n, b, m); }; }},
    {"agent.string", "the room is not checked", [](Services& s) {
       s.string = [](auto p, auto n, auto type, auto text, auto size) { return *size = 8, real::string(p, n, type, text, size); }; }},
    {"agent.string", "the length is not checked", [](Services& s) {
       s.string = [](auto p, auto n, auto... more) { return *n = 6, real::string(p, n, more...); }; }},
    {"agent.number", "a long number is cut", [](Services& s) {
       s.number = [](auto p, auto... more) { return p[1] = std::min(p[1], u8{4}), real::number(p, more...); }; }},
    {"agent.number", "the length is not checked", [](Services& s) {
       s.number = [](auto p, auto n, auto... more) { return *n = 10, real::number(p, n, more...); }; }},
    {"register.test", "a write has 32 bits", [](Services& s) {
       s.busWrite = [](auto reg, auto value) {
         real::busWrite(reg, value);
         volatile void* next = static_cast<volatile u8*>(reg) + 2;
         if (isTest(reg) && isTest(next)) real::busWrite(next, 0); }; }},
    {"register.test", "a data line is stuck", [](Services& s) {
       s.busRead = [](auto reg) { return static_cast<u16>(real::busRead(reg) | (isTest(reg) ? 8 : 0)); }; }},
};
// clang-format on

void interruptWith(void (*routine)()) {
  static void (*next)();
  next = routine;
  const auto interrupt = [] {
    kernel->interrupt(
        "conformance", 0, [](u8) { next(); }, 0);
  };
  kernel->at(kernel->now() + headend::kSecond / 1000, interrupt);
}

// The rows with this verdict in what was printed.
std::set<std::string> rowsWith(const std::string& verdict) {
  std::set<std::string> rows;
  std::istringstream lines(printed);
  for (std::string word, name; lines >> word;) {
    if (word == verdict && lines >> name) rows.insert(name);
  }
  return rows;
}

// The number of failures with what `install` breaks.
int check(void (*install)(Services&) = [](Services&) {}) {
  printed.clear();
  locks = saves = 0;
  held.reset();
  install(services);
  const int failed = qamConformance(0);
  services = {};
  ++run_number;
  kernel->delay(5);
  for (const char* each : {"card1.dat.tmp", "card1.non"}) fs::remove(records / each);
  return failed;
}

void findEachBrokenService() {
  for (const Break& each : kBreaks) {
    SCOPED_TRACE(each.what);
    EXPECT_EQ(check(each.install), 1);
    EXPECT_EQ(rowsWith("FAIL"), std::set<std::string>{each.row}) << printed;
    const bool hung = printed.find("no end within 5 seconds") != std::string::npos;
    EXPECT_EQ(hung, std::string_view(each.what).ends_with("hangs"));
  }
}

TEST(Conformance, PassesInTheHeadendAndFindsEachBrokenService) {
  Driven driven;
  kernel = &driven.headend().kernel;
  records = driven.headend().flash.folder() / "para";
  driven.drive([] {
    std::set<std::string> rows;
    for (const Break& each : kBreaks) rows.insert(each.row);
    qamConformanceInterrupt = interruptWith;
    EXPECT_EQ(check(), 0) << printed;
    EXPECT_EQ(rowsWith("PASS"), rows);

    constexpr int kAboveTheChecks = 215;  // so that a busy loop of a check is given up
    bool ended = false;
    kernel->spawn("tAbove", kAboveTheChecks, [&ended] {
      findEachBrokenService();
      ended = true;
    });
    while (!ended) kernel->delay(1);

    qamConformanceInterrupt = nullptr;
    semQamVar = nullptr;
    EXPECT_EQ(check(), 0) << printed;
    const std::set<std::string> skipped = {"queue.interrupt:", "semaphore.again:", "semaphore.wait:"};
    EXPECT_EQ(rowsWith("SKIP"), skipped);
    EXPECT_EQ(qamConformance(1), 1) << "without a card";
  });
}

}  // namespace
}  // namespace test
