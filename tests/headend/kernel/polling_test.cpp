#include <gtest/gtest.h>

#include "headend/kernel/network.h"
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

TEST(Polling, OnlyASecondOfNothingElseCounts) {
  struct Row {
    const char* name;
    std::function<void(Rig&, int round)> between;  // once every 10 ms of polling
    Nanos polling;
    std::size_t reports;
  };
  std::uint16_t reg = 0;
  std::uint16_t otherReg = 0;
  os::MsgQ* queue = nullptr;
  os::Semaphore* semaphore = nullptr;
  headend::UdpSocket* socket = nullptr;
  char byte = 0;
  const auto nothing = [](Rig&, int) {};
  const Row rows[] = {
      {"a second", nothing, kSecond + kMs, 1},
      {"a little less", nothing, kSecond - kMs, 0},
      {"many seconds are one report", nothing, 10 * kSecond, 1},
      {"another value", [&](Rig&, int round) { reg = static_cast<std::uint16_t>(round & 1); }, 3 * kSecond,
       0},
      {"another register", [&](Rig& r, int) { r.poll(otherReg); }, 3 * kSecond, 0},
      {"a delay", [](Rig& r, int) { r.kernel.delay(1); }, 3 * kSecond, 0},
      {"a delay of nothing", [](Rig& r, int) { r.kernel.delay(0); }, 3 * kSecond, 0},
      {"a lock", [](Rig& r, int) { r.kernel.lock(); }, 3 * kSecond, 0},
      {"an unlock", [](Rig& r, int) { r.kernel.unlock(); }, 3 * kSecond, 0},
      {"a send",
       [&](Rig& r, int) {
         r.kernel.send(queue, {&byte, 1}, os::NO_WAIT);
       },
       3 * kSecond, 0},
      {"a receive",
       [&](Rig& r, int) {
         r.kernel.receive(queue, {&byte, 1}, os::NO_WAIT);
       },
       3 * kSecond, 0},
      {"a take", [&](Rig& r, int) { r.kernel.take(semaphore, os::NO_WAIT); }, 3 * kSecond, 0},
      {"a give", [&](Rig& r, int) { r.kernel.give(semaphore); }, 3 * kSecond, 0},
      {"recvfrom", [&](Rig&, int) { socket->receive(os::NO_WAIT); }, 3 * kSecond, 0},
      {"sendto", [&](Rig&, int) { socket->send({.address = 0, .port = 1}, {}); }, 3 * kSecond, 0},
      {"a sleep", [](Rig& r, int) { r.kernel.sleepUntil(r.kernel.now() + 10); }, 3 * kSecond, 0},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Rig rig(freeCalls());
    reg = 0;
    headend::Network network(rig.kernel);
    headend::UdpSocket open(network, 1000);
    socket = &open;
    queue = rig.kernel.createQueue(1, 1);
    semaphore = rig.kernel.createBinary(false);
    rig.task("polls", 100, [&] {
      const Nanos until = row.polling;
      for (int round = 0; rig.kernel.now() < until; ++round) {
        const Nanos pause = rig.kernel.now() + 10 * kMs;
        while (rig.kernel.now() < std::min(pause, until)) rig.poll(reg, 10'000);
        row.between(rig, round);
      }
      rig.kernel.delay(1'000'000);
    });
    rig.runUntil(20 * kSecond);
    EXPECT_EQ(rig.parked.size(), row.reports);
  }
}

}  // namespace
}  // namespace test
