#include <gtest/gtest.h>

#include "tests/headend/kernel/rig.h"

namespace test {
namespace {

__extension__ using Wide = unsigned __int128;

Nanos tickTime(std::uint64_t n, int hz) {
  return static_cast<Nanos>(Wide{n} * 1'000'000'000U / static_cast<unsigned>(hz));
}

// Idle, and under a task whose every piece of work reaches over many ticks.
TEST(Clocks, TheNthTickComesAtNTimesThePeriodHoweverLongTheRun) {
  for (const int hz : {1000, 100, 60, 7}) {
    for (const bool busy : {false, true}) {
      SCOPED_TRACE(hz);
      Rig rig(freeCalls(hz, hz));
      std::uint64_t ticks = 0;
      std::uint64_t auxTicks = 0;
      std::uint64_t wrong = 0;
      rig.onTick = [&] { wrong += rig.kernel.now() == tickTime(++ticks, hz) ? 0 : 1; };
      rig.onAux = [&] { wrong += rig.kernel.now() == tickTime(++auxTicks, hz) ? 0 : 1; };
      if (busy) {
        rig.task("busy", 10, [&] {
          for (;;) rig.kernel.spend(333'333'337);
        });
      }
      const std::uint64_t seconds = 1'000'000 / static_cast<unsigned>(hz);
      rig.runUntil(static_cast<Nanos>(seconds) * kSecond + 1);
      EXPECT_EQ(wrong, 0U);
      EXPECT_EQ(ticks, seconds * static_cast<unsigned>(hz));
      EXPECT_EQ(auxTicks, ticks);
    }
  }
}

TEST(Clocks, ADelayEndsWithTheNthTickFromNow) {
  for (const int hz : {60, 100}) {
    for (const int ticks : {1, 2, 5, 600}) {
      for (const Nanos began : {Nanos{0}, tickTime(3, hz) - 1, tickTime(3, hz), tickTime(3, hz) + 5 * kMs}) {
        SCOPED_TRACE(testing::Message() << hz << " Hz, " << ticks << " ticks from " << began);
        Rig rig(freeCalls(hz));
        Nanos woken = 0;
        rig.task("sleeper", 100, [&] {
          rig.kernel.spend(began);
          rig.kernel.delay(ticks);
          woken = rig.kernel.now();
        });
        rig.runUntil(20 * kSecond);
        const std::uint64_t passed = began >= tickTime(3, hz) ? 3 : began == 0 ? 0 : 2;
        EXPECT_EQ(woken, tickTime(passed + static_cast<unsigned>(ticks), hz));
      }
    }
  }
}

TEST(Clocks, TimeOfInterruptsIsNobodysWorkAndTicksAreNotLost) {
  Rig rig(freeCalls(100, 1000));
  static Kernel* kernel = nullptr;
  kernel = &rig.kernel;
  std::uint64_t auxTicks = 0;
  rig.onAux = [&] {
    ++auxTicks;
    rig.kernel.interrupt(
        "slow", 0, [](u8) { kernel->spend(1'500'000); }, 0);
  };
  Nanos worked = 0;
  rig.task("busy", 100, [&] { rig.kernel.spend(kMs / 2), worked = rig.kernel.now(); });
  rig.runUntil(100 * kMs + 1);
  EXPECT_EQ(worked, kMs / 2);
  EXPECT_GE(auxTicks, 66U);  // each half a period late, and none left out before the end
  EXPECT_EQ(rig.kernel.interruptTime(), static_cast<Nanos>(auxTicks) * 1'500'000);
}

}  // namespace
}  // namespace test
