#include <gtest/gtest.h>

#include "tests/headend/kernel/rig.h"

namespace test {
namespace {

__extension__ using Wide = unsigned __int128;

// Idle, and under a task whose every piece of work reaches over many ticks.
TEST(Clocks, TheNthTickComesAtNTimesThePeriodHoweverLongTheRun) {
  for (const unsigned hz : {1000U, 100U, 60U, 7U}) {
    for (const bool busy : {false, true}) {
      Rig rig(freeCalls(static_cast<int>(hz), static_cast<int>(hz)));
      std::uint64_t ticks = 0, auxTicks = 0, wrong = 0;
      const auto tick = [&](std::uint64_t n) {
        wrong += rig.kernel.now() == static_cast<Nanos>(Wide{n} * 1'000'000'000U / hz) ? 0 : 1;
      };
      rig.onTick = [&] { tick(++ticks); };
      rig.onAux = [&] { tick(++auxTicks); };
      const auto work = [&] {
        for (;;) rig.kernel.spend(333'333'337);
      };
      if (busy) rig.task("busy", 10, work);
      const std::uint64_t seconds = 300'000 / hz;
      rig.runUntil(static_cast<Nanos>(seconds) * kSecond + 1);
      EXPECT_EQ(std::tuple(ticks, auxTicks, wrong), std::tuple(seconds * hz, seconds * hz, 0U)) << hz;
    }
  }
}

TEST(Clocks, TimeOfInterruptsIsNobodysWorkAndTicksAreNotLost) {
  Rig rig(freeCalls());
  static Kernel* kernel = nullptr;
  kernel = &rig.kernel;
  std::uint64_t auxTicks = 0;
  const auto slow = [](u8) { kernel->spend(1'500'000); };
  rig.onAux = [&] { ++auxTicks, rig.kernel.interrupt("slow", 0, slow, 0); };
  rig.task("busy", 100, [&] { rig.kernel.spend(kMs / 2), rig.tell("worked"); });
  rig.runUntil(100 * kMs + 1);
  EXPECT_EQ(rig.story, Story{"worked@0.5"});
  EXPECT_GE(auxTicks, 66U);  // each half a period late, and none left out before the end
  EXPECT_EQ(rig.kernel.interruptTime(), static_cast<Nanos>(auxTicks) * 1'500'000);
}

}  // namespace
}  // namespace test
