#include <gtest/gtest.h>

#include "headend/kernel/network.h"
#include "tests/headend/kernel/rig.h"

namespace test {
namespace {

TEST(Scheduling, AHigherTaskComesInTheMiddleOfACost) {
  Rig rig(freeCalls());
  os::Semaphore* signal = rig.kernel.createBinary(false);
  Nanos highRan = 0;
  Nanos lowDone = 0;
  rig.task("low", 200, [&] {
    rig.kernel.spend(10 * kMs);
    lowDone = rig.kernel.now();
  });
  rig.task("high", 100, [&] {
    rig.kernel.take(signal, os::WAIT_FOREVER);
    highRan = rig.kernel.now();
    rig.kernel.spend(2 * kMs);
  });
  rig.kernel.at(3'000'007, [&] { rig.kernel.give(signal); });
  rig.runUntil(kSecond);
  EXPECT_EQ(highRan, 3'000'007);
  EXPECT_EQ(lowDone, 12 * kMs);
}

// Whatever makes a higher task ready, it has run before the call returns.
TEST(Scheduling, AHigherTaskRunsBeforeTheCallThatWokeItReturns) {
  struct Row {
    const char* name;
    std::function<void(Rig&, headend::UdpSocket&)> high;  // waits
    std::function<void(Rig&, headend::UdpSocket&)> low;   // wakes
  };
  os::MsgQ* queue = nullptr;
  os::Semaphore* binary = nullptr;
  os::Semaphore* mutex = nullptr;
  char byte = 'x';
  char room[1];
  const Row rows[] = {
      {"send", [&](Rig& r, auto&) { r.kernel.receive(queue, room, os::WAIT_FOREVER); },
       [&](Rig& r, auto&) {
         r.kernel.send(queue, {&byte, 1}, os::NO_WAIT);
       }},
      {"receive",
       [&](Rig& r, auto&) {
         r.kernel.send(queue, {&byte, 1}, os::NO_WAIT);
         r.kernel.send(queue, {&byte, 1}, os::WAIT_FOREVER);
       },
       [&](Rig& r, auto&) { r.kernel.receive(queue, room, os::NO_WAIT); }},
      {"give", [&](Rig& r, auto&) { r.kernel.take(binary, os::WAIT_FOREVER); },
       [&](Rig& r, auto&) { r.kernel.give(binary); }},
      {"give a mutex", [&](Rig& r, auto&) { r.kernel.delay(1), r.kernel.take(mutex, os::WAIT_FOREVER); },
       [&](Rig& r, auto&) {
         r.kernel.take(mutex, os::NO_WAIT);
         r.kernel.spend(15 * kMs);
         r.kernel.give(mutex);
       }},
      {"unlock", [&](Rig& r, auto&) { r.kernel.take(binary, os::WAIT_FOREVER); },
       [&](Rig& r, auto&) {
         r.kernel.lock();
         r.kernel.give(binary);
         EXPECT_TRUE(r.story.empty());
         r.kernel.unlock();
       }},
      {"spawn", [](Rig&, auto&) {},
       [](Rig& r, auto&) { r.task("higher", 50, [&r] { r.note("high"); }), r.story.pop_back(); }},
      {"sendto", [](Rig&, auto& socket) { EXPECT_TRUE(socket.receive(os::WAIT_FOREVER)); },
       [](Rig&, auto& socket) { socket.send({.address = 0, .port = socket.port()}, {1}); }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Rig rig;
    headend::Network network(rig.kernel);
    headend::UdpSocket socket(network, 1000);
    queue = rig.kernel.createQueue(1, 1);
    binary = rig.kernel.createBinary(false);
    mutex = rig.kernel.createMutex("mutex");
    const bool spawns = std::string(row.name) == "spawn";
    rig.task("high", 100, [&] {
      row.high(rig, socket);
      if (!spawns) rig.note("high");
    });
    rig.task("low", 200, [&] {
      if (spawns) rig.note("low");
      row.low(rig, socket);
      rig.note("low");
    });
    rig.runUntil(kSecond);
    EXPECT_EQ(rig.story, spawns ? Story({"low", "low"}) : Story({"high", "low"}));
  }
}

TEST(Scheduling, ALockKeepsAllOthersOutUntilTheLastUnlock) {
  Rig rig(freeCalls());
  rig.task("low", 200, [&] {
    rig.kernel.lock();
    rig.kernel.lock();
    rig.kernel.spend(35 * kMs);
    rig.kernel.unlock();
    rig.kernel.spend(35 * kMs);
    rig.note("unlock");
    rig.kernel.unlock();
    rig.note("low again");
    rig.kernel.unlock();  // one too many is no debt
    rig.kernel.lock();
    rig.kernel.spend(35 * kMs);
    rig.note("still mine");
  });
  rig.task("high", 100, [&] {
    rig.kernel.delay(1);
    rig.note("high");
    rig.kernel.delay(1);
    rig.note("high again");
  });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story({"unlock", "high", "low again", "still mine", "high again"}));
}

TEST(Scheduling, ALockIsSetAsideWhileItsHolderBlocksAndHoldsAgainAfter) {
  os::MsgQ* queue = nullptr;
  os::Semaphore* binary = nullptr;
  char room[1];
  const std::pair<const char*, std::function<void(Rig&)>> rows[] = {
      {"delay", [](Rig& r) { r.kernel.delay(3); }},
      {"receive", [&](Rig& r) { r.kernel.receive(queue, room, 3); }},
      {"take", [&](Rig& r) { r.kernel.take(binary, 3); }},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.first);
    Rig rig(freeCalls());
    queue = rig.kernel.createQueue(1, 1);
    binary = rig.kernel.createBinary(false);
    Nanos other = 0;
    rig.task("holder", 100, [&] {
      rig.kernel.lock();
      row.second(rig);
      EXPECT_EQ(rig.kernel.now(), 30 * kMs);
      const Nanos before = other;
      EXPECT_GE(before, 29 * kMs);
      rig.kernel.spend(50 * kMs);
      EXPECT_EQ(other, before);
      rig.kernel.unlock();
    });
    rig.task("other", 100, [&] {
      for (;;) {
        rig.kernel.spend(100'000);
        other += 100'000;
      }
    });
    rig.runUntil(200 * kMs);
    EXPECT_GE(other, 130 * kMs);
  }
}

// In slices of a tick, and also where a higher task comes in with each tick.
TEST(Scheduling, EqualTasksShareTheProcessorInSlices) {
  for (const bool higherTaskAtEachTick : {false, true}) {
    SCOPED_TRACE(higherTaskAtEachTick);
    Rig rig(freeCalls());
    std::vector<int> turns;
    for (int i = 0; i < 3; ++i) {
      rig.task("equal", 150, [&, i] {
        for (;;) {
          if (turns.empty() || turns.back() != i) turns.push_back(i);
          rig.kernel.spend(100'000);
        }
      });
    }
    rig.task("low", 151, [] { ADD_FAILURE() << "ran"; });
    if (higherTaskAtEachTick) {
      rig.task("high", 100, [&] {
        for (;;) rig.kernel.delay(1), rig.kernel.spend(kMs);
      });
    }
    rig.runUntil(3 * kSecond);
    const Nanos share = higherTaskAtEachTick ? 900 * kMs : kSecond;
    for (const auto& task : rig.kernel.tasks()) {
      if (task->name != "equal") continue;
      EXPECT_LE(std::abs(rig.kernel.cpuTime(*task) - share), 11 * kMs);
    }
    ASSERT_NEAR(static_cast<double>(turns.size()), 300, 1);
    for (std::size_t i = 0; i < turns.size(); ++i) EXPECT_EQ(turns[i], static_cast<int>(i % 3));
  }
}

TEST(Scheduling, APreemptedTaskGoesOnBeforeItsEquals) {
  Rig rig(freeCalls());
  os::Semaphore* signal = rig.kernel.createBinary(false);
  rig.task("first", 150, [&] { rig.kernel.spend(5 * kMs), rig.note("first"); });
  rig.task("second", 150, [&] { rig.note("second"); });
  rig.task("high", 100, [&] { rig.kernel.take(signal, os::WAIT_FOREVER), rig.note("high"); });
  rig.kernel.at(2 * kMs, [&] { rig.kernel.give(signal); });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story({"high", "first", "second"}));
}

TEST(Scheduling, ADelayOfNothingLetsEqualsRunAndNobodyBelow) {
  Rig rig(freeCalls());
  rig.task("first", 150, [&] {
    rig.note("first"), rig.kernel.delay(0), rig.note("first"), rig.kernel.delay(0), rig.note("first");
  });
  rig.task("equal", 150, [&] { rig.note("equal"), rig.kernel.spend(kMs); });
  rig.task("low", 151, [&] { rig.note("low"); });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story({"first", "equal", "first", "first", "low"}));
}

}  // namespace
}  // namespace test
