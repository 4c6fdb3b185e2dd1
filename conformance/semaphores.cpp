// The chassis's mutex for variables: the module creates no semaphore of its own.
#include "conformance/checks.h"
#include "conformance/helpers.h"
#include "qamcard/qamcard.h"

namespace conformance {
namespace {

constexpr int kPending = 1;

volatile int other;  // the other task's result

int takeAndGive(int timeout, int, int, int, int, int, int, int, int, int) {
  const int result = os::semTake(semQamVar, timeout);
  if (result == os::OK) os::semGive(semQamVar);
  other = result;
  return 0;
}

void startOther(int timeout) {
  other = kPending;
  spawn(kHigher, takeAndGive, timeout);
}

int resultOfOther(int timeout) {
  startOther(timeout);
  waitWhile(other, kPending);
  return other;
}

int take() {
  return os::semTake(semQamVar, os::WAIT_FOREVER);
}

}  // namespace

void checkOwnerAgain(Seen& seen, u8 /*slotNo*/) {
  constexpr int kPatience = 50;  // a task of the chassis may have it for a moment
  seen << take() << " " << os::semTake(semQamVar, os::NO_WAIT) << ", ";
  seen << os::semGive(semQamVar) << " " << resultOfOther(os::NO_WAIT) << ", ";
  seen << os::semGive(semQamVar) << " " << resultOfOther(kPatience);
}

void checkOtherWaits(Seen& seen, u8 /*slotNo*/) {
  constexpr int kTicks = 3;
  take();
  TickCount count;
  seen << resultOfOther(kTicks) << " after ";
  seen.addTicks(count.end(), kTicks);
  startOther(os::WAIT_FOREVER);
  os::taskDelay(kTicks);
  seen << (other == kPending ? ", waits, " : ", waits not, ");
  os::semGive(semQamVar);
  waitWhile(other, kPending);
  seen << other;
}

void checkNoSemaphore(Seen& seen, u8 /*slotNo*/) {
  seen << os::semTake(nullptr, os::WAIT_FOREVER) << " " << os::semGive(nullptr);
}

bool lacksSemaphore(u8 /*slotNo*/) {
  return semQamVar == nullptr;
}

}  // namespace conformance
