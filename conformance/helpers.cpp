#include "conformance/helpers.h"

namespace conformance {
namespace {

constexpr int kStack = 8192;  // a check saves a record and prints
constexpr int kMostTicks = 1000;

// The last counts, by their number. A check that hung may end its count while another check counts.
struct Count {
  int number, ticks;
};
constexpr int kCounts = 8;
volatile Count counts[kCounts];
int lastCount;

volatile Count& countOf(int number) {
  return counts[number % kCounts];
}

int countTicks(int number, int, int, int, int, int, int, int, int, int) {
  volatile Count& count = countOf(number);
  for (int i = 0; i < kMostTicks; ++i) {
    os::taskDelay(1);
    if (count.number != number) return 0;
    count.ticks = count.ticks + 1;
  }
  return 0;
}

}  // namespace

int spawn(int priority, os::FUNCPTR entry, int argument1, int argument2) {
  return os::taskSpawn("tConformance", priority, 0, kStack, entry, argument1, argument2, 0, 0, 0, 0, 0, 0, 0,
                       0);
}

TickCount::TickCount() : number_(++lastCount) {
  volatile Count& count = countOf(number_);
  count.number = number_;
  count.ticks = 0;
  os::taskDelay(1);
  spawn(kHigher, countTicks, number_);
}

int TickCount::end() {
  volatile Count& count = countOf(number_);
  count.number = 0;
  return count.ticks;
}

void waitWhile(const volatile int& word, int value) {
  constexpr int kMost = 100;
  for (int i = 0; i < kMost && word == value; ++i) os::taskDelay(1);
}

}  // namespace conformance
