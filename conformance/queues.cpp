// Message queues. A queue cannot be deleted, so those of the checks remain.
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "conformance/checks.h"
#include "conformance/helpers.h"
#include "qamcard/conformance.h"

void (*qamConformanceInterrupt)(void (*routine)());

namespace conformance {
namespace {

constexpr int kMessages = 3;
constexpr int kLength = 4;
constexpr int kTicks = 3;

os::MSG_Q_ID queue;  // of the running check, for its tasks and its interrupt
volatile int sentByInterrupt;
Seen* volatile order;

void createQueue(int messages) {
  queue = os::msgQCreate(messages, kLength, os::MSG_Q_PRIORITY);
}

int send(const char* text, int timeout = os::NO_WAIT) {
  char message[8];
  const int length = std::snprintf(message, sizeof message, "%s", text);
  return os::msgQSend(queue, message, static_cast<unsigned>(length), timeout, os::MSG_PRI_NORMAL);
}

int receive(char (&buffer)[kLength + 1], int timeout) {
  std::memset(buffer, 0, sizeof buffer);
  return os::msgQReceive(queue, buffer, kLength, timeout);
}

int sendLater(int ticks, int, int, int, int, int, int, int, int, int) {
  os::taskDelay(ticks);
  return send("late");
}

int receiveAndAppend(int, int, int, int, int, int, int, int, int, int) {
  char buffer[kLength + 1];
  receive(buffer, os::WAIT_FOREVER);
  *order << "R";
  return 0;
}

void sendInInterrupt() {
  sentByInterrupt = send("irq");
}

// The result of a send by an interrupt routine.
int sendFromInterrupt() {
  constexpr int kPending = 1;
  sentByInterrupt = kPending;
  qamConformanceInterrupt(sendInInterrupt);
  waitWhile(sentByInterrupt, kPending);
  return sentByInterrupt;
}

}  // namespace

void checkOrder(Seen& seen, u8 /*slotNo*/) {
  createQueue(kMessages);
  for (const char* each : {"a", "bb", "ccc"}) send(each);
  for (int i = 0; i < kMessages; ++i) {
    char buffer[kLength + 1];
    const int length = receive(buffer, os::NO_WAIT);
    seen.next() << buffer << " " << length;
  }
}

void checkLength(Seen& seen, u8 /*slotNo*/) {
  createQueue(1);
  seen << send("12345") << ", ";
  send("wxyz");
  char buffer[] = "....";
  seen << os::msgQReceive(queue, buffer, 2, os::NO_WAIT) << " ";
  seen << buffer << ", " << receive(buffer, os::NO_WAIT);
}

void checkFull(Seen& seen, u8 /*slotNo*/) {
  createQueue(2);
  seen << send("a") << " " << send("b") << ", " << send("c") << ", ";
  TickCount count;
  seen << send("d", kTicks) << " after ";
  seen.addTicks(count.end(), kTicks);
}

void checkEmpty(Seen& seen, u8 /*slotNo*/) {
  createQueue(1);
  char buffer[kLength + 1];
  seen << receive(buffer, os::NO_WAIT) << ", ";
  TickCount count;
  seen << receive(buffer, kTicks) << " after ";
  seen.addTicks(count.end(), kTicks);
}

void checkReceiverWaits(Seen& seen, u8 /*slotNo*/) {
  createQueue(1);
  char buffer[kLength + 1];
  TickCount count;
  spawn(kHigher, sendLater, kTicks);
  const int length = receive(buffer, os::WAIT_FOREVER);
  seen << length << " " << buffer << " after ";
  seen.addTicks(count.end(), kTicks);
}

void checkReceiverFirst(Seen& seen, u8 /*slotNo*/) {
  createQueue(1);
  order = &seen;
  spawn(kHigher, receiveAndAppend);
  send("wake");
  seen << "S";
  os::taskDelay(2);
}

void checkSendFromInterrupt(Seen& seen, u8 /*slotNo*/) {
  createQueue(1);
  order = &seen;
  spawn(kHigher, receiveAndAppend);
  const int result = sendFromInterrupt();
  seen << " " << result;
  send("full");
  seen << ", " << sendFromInterrupt();
}

void checkNoQueue(Seen& seen, u8 /*slotNo*/) {
  queue = nullptr;
  char buffer[kLength + 1];
  seen << send("a") << " " << receive(buffer, os::WAIT_FOREVER);
}

bool lacksInterrupt(u8 /*slotNo*/) {
  return qamConformanceInterrupt == nullptr;
}

}  // namespace conformance
