#include <gtest/gtest.h>

#include "tests/headend/kernel/rig.h"

namespace test {
namespace {

// The one who polls is the most urgent and holds the processor; the other runs all the same once it is
// parked.
TEST(Polling, ATaskThatPollsForASecondIsSetAsideWithItsLockUntilTheRegisterChanges) {
  Rig rig(freeCalls());
  std::uint16_t reg = 0;
  Nanos otherFrom = 0;
  Nanos other = 0;
  bool lockHeld = false;
  rig.task("polls", 100, [&] {
    rig.kernel.delay(1);
    rig.kernel.lock();
    while (rig.poll(reg) == 0) {
    }
    const Nanos before = other;
    rig.kernel.spend(50 * kMs);
    lockHeld = other == before;
    rig.kernel.unlock();
    rig.kernel.delay(1'000'000);
  });
  rig.task("other", 200, [&] {
    rig.kernel.delay(2);
    otherFrom = rig.kernel.now();
    for (;;) rig.kernel.spend(kMs), other += kMs;
  });
  rig.kernel.at(4'003 * kMs, [&] { reg = 1; });
  rig.runUntil(6 * kSecond);
  ASSERT_EQ(rig.parked.size(), 1U);
  EXPECT_EQ(rig.parked[0].first, "polls");
  EXPECT_NEAR(static_cast<double>(rig.parked[0].second), 1.01e9, 1000);
  EXPECT_EQ(otherFrom, rig.parked[0].second);
  ASSERT_EQ(rig.released.size(), 1U);
  EXPECT_EQ(rig.released[0].second, 4'010 * kMs);
  EXPECT_TRUE(lockHeld);
  EXPECT_GE(other, 4'800 * kMs);
}

}  // namespace
}  // namespace test
