// The table of checks, and how it is run: each check in a task of its own, which posts its end to a queue, so
// that one that hangs is ended by a limit. Results of earlier calls and late ones are not taken for
// another's.
#include <algorithm>
#include <iterator>

#include "conformance/checks.h"
#include "conformance/helpers.h"
#include "platform/chassis.h"
#include "qamcard/conformance.h"

namespace conformance {
namespace {

struct Row {
  const char* name;
  const char* tried;
  const char* expected;
  const char* usedBy;
  Check* check;
  Missing* missing = nullptr;
  const char* needs = "";
};

// clang-format off
constexpr Row kRows[] = {
    {"task.arguments", "taskSpawn with ten arguments, priority 225", "1 -2 3 4 5 6 7 8 9 2147483647",
     "the send tasks, which get slot and channel", checkTaskArguments},
    {"task.priority", "C, of priority 230, starts L (240) and H (225), then sleeps", "HCL",
     "the send tasks (212), which precede the back-end task", checkPriorities},
    {"task.lock",
     "has a higher task run after two taskLock, a taskUnlock, another; after taskLock, taskDelay(1); again, taskUnlock",
     "001, 01, 01", "a change of the level, readings of temperatures", checkLock},
    {"task.delay", "taskDelay(10)", "10 ticks", "waits of start-up and of rates", checkDelay},
    {"task.yield", "taskDelay(0) with a ready task of the same priority: has it run?", "1",
     "waits shorter than a tick", checkYield},
    {"clock.rate", "sysClkRateGet()", "at least 100", "waits of 10 ms, which must not be 0 ticks", checkClockRate},
    {"queue.order", "three messages, then three receives", "a 1 bb 2 ccc 3", "packets of a section", checkOrder},
    {"queue.length", "5 bytes to a queue of 4 bytes; 4 bytes received in a buffer of 2; what is left",
     "-1, 2 wx.., -1", "the send queues and the PID search, whose messages have 4 bytes", checkLength},
    {"queue.full", "three messages to a queue of two, without waiting; another for 3 ticks",
     "0 0, -1, -1 after 3 ticks", "the tick routine, which tries again later", checkFull},
    {"queue.empty", "a receive without waiting, and one for 3 ticks", "-1, -1 after 3 ticks", "the PID search", checkEmpty},
    {"queue.wait", "a receive without a limit, and a message 3 ticks later", "4 late after 3 ticks",
     "the send tasks", checkReceiverWaits},
    {"queue.wake", "S sends to R, a waiting task of higher priority", "RS",
     "the back end, which writes to the packet store when the send queues are empty", checkReceiverFirst},
    {"queue.interrupt", "an interrupt routine sends to R, a waiting task, then to a full queue", "R 0, -1",
     "the tick routine", checkSendFromInterrupt, lacksInterrupt, "qamConformanceInterrupt"},
    {"queue.null", "msgQSend and msgQReceive of a null queue", "-1 -1",
     "send task and tick routine of a card without memory for its queues", checkNoQueue},
    {"semaphore.again", "semQamVar taken twice by one task, given, given; after each another task's semTake",
     "0 0, 0 -1, 0 0", "the SNMP agent, which has it while it calls findVar", checkOwnerAgain, lacksSemaphore, "semQamVar"},
    {"semaphore.wait", "semQamVar is taken: another task's semTake for 3 ticks, and without a limit",
     "-1 after 3 ticks, waits, 0", "getVar and setVar", checkOtherWaits, lacksSemaphore, "semQamVar"},
    {"semaphore.null", "semTake and semGive of null", "-1 -1", "getVar and setVar without semQamVar", checkNoSemaphore},
    {"memory.none", "malloc of all but 64 KiB of the address space", "null", "start-up, which then reports it", checkNoMemory},
    {"memory.alignment", "four addresses of malloc modulo 8", "0 0 0 0", "descriptor and record", checkAlignment},
    {"memory.null", "free(null)", "returned", "nothing today: C allows it", checkFreeNull},
    {"file.missing", "fopen of a missing file with rb+", "null, not created", "start-up without record or bitstream",
     checkMissingFile},
    {"file.short", "two freads of 60 bytes, 30 before the end of the record's file", "30 0",
     "records of older firmware, which are shorter", checkShortRead},
    {"file.seek", "ftell at the end (less varSize), at the start, after 8 bytes, which begin a record",
     "0, 0, 8, a record", "the bitstream's size", checkSeek},
    {"save.content", "two para_save, each of a changed record, which is read back", "0 saved 0 saved",
     "setVar and the back end", checkSave},
    {"save.whole", "the record's file, opened by a higher task at each tick of a para_save", "whole",
     "the next start after a loss of power", checkSaveWhole},
    {"save.rest", "files like the record's with .dat.new, .dat.tmp, .new, .tmp after a para_save", "none",
     "the flash, which has little room", checkLeftFiles},
    {"panel.keyScan", "five keyScan without a key", "5 ticks", "menu handlers, which call it without a pause", checkKeyScan},
    {"print.long", "DebugPrint of 120 characters", "returned", "all messages of the module", checkLongText},
    {"agent.compare", "compare of 1.3.6 with 1.3.6, 1.3.2147483648, the reverse, and of names with their beginnings",
     "0 -1 1 -1 1", "GET and GETNEXT", checkCompare},
    {"agent.string", "asn_parse_string of 3 characters in 6 bytes; for a text of 2; cut to 4 bytes",
     "5 1 abc 3 type 4, null, null", "SET of a text", checkParseString},
    {"agent.number", "asn_parse_unsigned_int of 3 octets in 10 bytes; of 6 octets; cut to 4 bytes",
     "5 5 258 type 2, null, null", "SET of a number", checkParseNumber},
    {"register.test", "the 15 Test registers: each keeps its value while another is written", "0 wrong",
     "every access of a device", checkScratchRegisters, lacksWindow, "a configured FPGA"},
};
// clang-format on

constexpr int kRowCount = static_cast<int>(std::size(kRows));

struct End {
  int run, row;
};

int currentRun;
u8 slot;
os::MSG_Q_ID ends;
Seen seen[kRowCount];

int runCheck(int run, int row, int, int, int, int, int, int, int, int) {
  kRows[row].check(seen[row], slot);
  End end = {run, row};
  return os::msgQSend(ends, reinterpret_cast<char*>(&end), sizeof end, os::NO_WAIT, os::MSG_PRI_NORMAL);
}

// Whether the check ends in time.
bool endsInTime(int row) {
  constexpr int kLimit_s = 5;
  constexpr int kLeastRate = 100;
  const int limit = kLimit_s * std::max(os::sysClkRateGet(), kLeastRate);
  seen[row].clear();
  spawn(kOwn, runCheck, currentRun, row);
  for (;;) {
    End end = {};
    if (os::msgQReceive(ends, reinterpret_cast<char*>(&end), sizeof end, limit) == os::ERROR) return false;
    if (end.run == currentRun && end.row == row) return true;
  }
}

void printFailure(const Row& row, const Seen& what, bool ended) {
  chassis::DebugPrint("FAIL %s\r\n", row.name);
  chassis::DebugPrint("  tried:    %s\r\n", row.tried);
  chassis::DebugPrint("  expected: %s\r\n", row.expected);
  chassis::DebugPrint("  seen:     %s%s\r\n", what.text(), ended ? "" : "... and no end within 5 seconds");
  chassis::DebugPrint("  used by:  %s\r\n", row.usedBy);
}

struct Totals {
  int passed = 0, failed = 0, skipped = 0;
};

void runRow(int number, Totals& totals) {
  const Row& row = kRows[number];
  if (row.missing != nullptr && row.missing(slot)) {
    chassis::DebugPrint("SKIP %s: it needs %s\r\n", row.name, row.needs);
    ++totals.skipped;
    return;
  }
  const bool ended = endsInTime(number);
  if (ended && seen[number] == row.expected) {
    chassis::DebugPrint("PASS %s\r\n", row.name);
    ++totals.passed;
  } else {
    printFailure(row, seen[number], ended);
    ++totals.failed;
  }
}

int run(u8 slotNo) {
  const chassis::card* card = slotNo < MAX_BOARD_NUM ? chassis::GetCardPoint(slotNo) : nullptr;
  ends = os::msgQCreate(kRowCount, sizeof(End), os::MSG_Q_PRIORITY);
  if (card == nullptr || card->varPtr == nullptr || ends == nullptr) {
    chassis::DebugPrint("FAIL start: no queue, or no card with a record in slot %d\r\n", slotNo);
    return 1;
  }
  ++currentRun;
  slot = slotNo;
  Totals totals;
  for (int row = 0; row < kRowCount; ++row) runRow(row, totals);
  chassis::DebugPrint("conformance of slot %d: %d passed, %d failed, %d skipped\r\n", slotNo, totals.passed,
                      totals.failed, totals.skipped);
  return totals.failed;
}

}  // namespace
}  // namespace conformance

int qamConformance(u8 slotNo) {
  return conformance::run(slotNo);
}
