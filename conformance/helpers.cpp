#include "conformance/helpers.h"

namespace conformance {
namespace {

constexpr int kStack = 4096;
constexpr int kMostTicks = 1000;

volatile int currentCount;  // its number; a task of an earlier count ends
volatile int ticks;

int countTicks(int number, int, int, int, int, int, int, int, int, int) {
  for (int i = 0; i < kMostTicks; ++i) {
    os::taskDelay(1);
    if (currentCount != number) return 0;
    ticks = ticks + 1;
  }
  return 0;
}

}  // namespace

int spawn(int priority, os::FUNCPTR entry, int argument1, int argument2) {
  return os::taskSpawn("tConformance", priority, 0, kStack, entry, argument1, argument2, 0, 0, 0, 0, 0, 0, 0,
                       0);
}

void beginTicks() {
  currentCount = currentCount + 1;
  ticks = 0;
  os::taskDelay(1);
  spawn(kHigher, countTicks, currentCount);
}

int countedTicks() {
  currentCount = currentCount + 1;
  return ticks;
}

void waitWhile(const volatile int& word, int value) {
  constexpr int kMost = 100;
  for (int i = 0; i < kMost && word == value; ++i) os::taskDelay(1);
}

}  // namespace conformance
