#include <gtest/gtest.h>

#include <array>
#include <span>

#include "tests/headend/kernel/rig.h"

namespace test {
namespace {

std::span<const char> text(const std::string& s) {
  return {s.data(), s.size()};
}

std::string receive(Rig& rig, os::MsgQ* queue, int timeout, std::size_t room = 16) {
  std::array<char, 16> buffer{};
  const int n = rig.kernel.receive(queue, std::span(buffer).first(room), timeout);
  return n == os::ERROR ? "none" : std::string(buffer.data(), static_cast<std::size_t>(n));
}

TEST(Queue, GivesMessagesInOrderAndRefusesWhatDoesNotFit) {
  Rig rig;
  rig.task("only", 100, [&] {
    Kernel& k = rig.kernel;
    os::MsgQ* queue = k.createQueue(2, 4);
    EXPECT_EQ(receive(rig, queue, os::NO_WAIT), "none");
    EXPECT_EQ(k.send(queue, text("one"), os::NO_WAIT), os::OK);
    EXPECT_EQ(k.send(queue, text("three"), os::NO_WAIT), os::ERROR);  // too long
    EXPECT_EQ(k.send(queue, text("two2"), os::NO_WAIT), os::OK);
    const Nanos before = k.now();
    EXPECT_EQ(k.send(queue, text("full"), os::NO_WAIT), os::ERROR);
    EXPECT_LT(k.now() - before, kMs);
    EXPECT_EQ(receive(rig, queue, os::NO_WAIT), "one");
    EXPECT_EQ(receive(rig, queue, os::NO_WAIT, 2), "tw");  // the rest of it is lost
    EXPECT_EQ(receive(rig, queue, os::NO_WAIT), "none");
    EXPECT_EQ(k.send(queue, {}, os::NO_WAIT), os::OK);
    EXPECT_EQ(receive(rig, queue, os::NO_WAIT), "");
    EXPECT_EQ(k.send(nullptr, text("one"), os::NO_WAIT), os::ERROR);
    EXPECT_EQ(receive(rig, nullptr, os::WAIT_FOREVER), "none");
    EXPECT_EQ(k.take(nullptr, os::WAIT_FOREVER), os::ERROR);
    EXPECT_EQ(k.give(nullptr), os::ERROR);
    EXPECT_EQ(k.createQueue(0, 4), nullptr);
    rig.note("done");
  });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story({"done"}));
}

TEST(Queue, WaitsForAMessageOrForRoomAsLongAsAsked) {
  Rig rig(freeCalls());
  os::MsgQ* queue = rig.kernel.createQueue(1, 4);
  rig.task("waits", 100, [&] {
    EXPECT_EQ(receive(rig, queue, 3), "none");
    EXPECT_EQ(rig.kernel.now(), 30 * kMs);
    EXPECT_EQ(receive(rig, queue, 3, 2), "ha");  // sent at 45 ms, cut to the room
    EXPECT_EQ(rig.kernel.now(), 45 * kMs);
    EXPECT_EQ(receive(rig, queue, os::NO_WAIT), "none");
    EXPECT_EQ(rig.kernel.send(queue, text("a"), 3), os::OK);
    EXPECT_EQ(rig.kernel.send(queue, text("b"), 2), os::ERROR);
    EXPECT_EQ(rig.kernel.now(), 60 * kMs);
    EXPECT_EQ(rig.kernel.send(queue, text("c"), os::WAIT_FOREVER), os::OK);
    EXPECT_EQ(rig.kernel.now(), 75 * kMs);
    EXPECT_EQ(receive(rig, queue, os::NO_WAIT), "c");
    rig.note("done");
  });
  rig.task("partner", 200, [&] {
    rig.kernel.spend(45 * kMs);
    EXPECT_EQ(rig.kernel.send(queue, text("half"), os::NO_WAIT), os::OK);
    rig.kernel.spend(30 * kMs);
    EXPECT_EQ(receive(rig, queue, os::NO_WAIT), "a");
  });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story({"done"}));
}

TEST(Queue, ServesTheMostUrgentReceiverFirst) {
  Rig rig(freeCalls());
  os::MsgQ* queue = rig.kernel.createQueue(8, 4);
  int order = 0;
  for (const char* name : {"200a", "150", "200b", "100"}) {
    rig.task(name, std::stoi(name), [&, name, arrival = ++order] {
      rig.kernel.delay(arrival);
      rig.note(std::string(name) + receive(rig, queue, os::WAIT_FOREVER));
    });
  }
  rig.task("sender", 250, [&] {
    rig.kernel.delay(9);
    rig.kernel.lock();
    for (const char* message : {"1", "2", "3", "4", "5"}) rig.kernel.send(queue, text(message), os::NO_WAIT);
    rig.kernel.unlock();
    EXPECT_EQ(receive(rig, queue, os::NO_WAIT), "5");
  });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story({"1001", "1502", "200a3", "200b4"}));
}

TEST(Mutex, IsItsOwnersAgainAndAgainAndGoesOverWhenTheLastGiveComes) {
  Rig rig(freeCalls());
  os::Semaphore* mutex = rig.kernel.createMutex("mutex");
  rig.task("owner", 150, [&] {
    Kernel& k = rig.kernel;
    EXPECT_EQ(k.take(mutex, os::NO_WAIT), os::OK);
    EXPECT_EQ(k.take(mutex, os::NO_WAIT), os::OK);
    k.delay(2);
    EXPECT_EQ(k.give(mutex), os::OK);
    rig.note("one back");
    EXPECT_EQ(k.give(mutex), os::OK);
    rig.note("both back");
    EXPECT_EQ(k.give(mutex), os::ERROR);
    EXPECT_EQ(k.take(mutex, 2), os::ERROR);  // until "low" has given it
    EXPECT_EQ(k.now(), 40 * kMs);
    EXPECT_EQ(k.take(mutex, os::WAIT_FOREVER), os::OK);
    EXPECT_EQ(k.now(), 70 * kMs);
    rig.note("mine again");
  });
  rig.task("high", 100, [&] {
    rig.kernel.delay(1);
    EXPECT_EQ(rig.kernel.take(mutex, os::NO_WAIT), os::ERROR);
    EXPECT_EQ(rig.kernel.give(mutex), os::ERROR);  // another's
    EXPECT_EQ(rig.kernel.take(mutex, os::WAIT_FOREVER), os::OK);
    rig.note("high has it");
    EXPECT_EQ(rig.kernel.give(mutex), os::OK);
  });
  rig.task("low", 200, [&] {
    rig.kernel.delay(1);
    EXPECT_EQ(rig.kernel.take(mutex, os::WAIT_FOREVER), os::OK);
    rig.kernel.delay(5);
    EXPECT_EQ(rig.kernel.give(mutex), os::OK);
  });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story({"one back", "high has it", "both back", "mine again"}));
}

// A task that gives what is not its own for ever still lets time pass.
TEST(Mutex, AVainGiveTakesTimeLikeAnyCall) {
  Rig rig;
  os::Semaphore* mutex = rig.kernel.createMutex("mutex");
  int rounds = 0;
  rig.task("vain", 100, [&] {
    while (rig.kernel.now() < 10 * kMs && ++rounds < 100'000) rig.kernel.give(mutex);
  });
  rig.runUntil(20 * kMs);
  EXPECT_LT(rounds, 100'000);
}

TEST(Binary, WakesOneTaskAGiveAndRemembersOneGive) {
  Rig rig(freeCalls());
  os::Semaphore* binary = rig.kernel.createBinary(true);
  rig.task("taker", 100, [&] {
    Kernel& k = rig.kernel;
    EXPECT_EQ(k.take(binary, os::NO_WAIT), os::OK);
    EXPECT_EQ(k.take(binary, os::NO_WAIT), os::ERROR);  // not recursive
    EXPECT_EQ(k.take(binary, 2), os::ERROR);
    EXPECT_EQ(k.now(), 20 * kMs);
    EXPECT_EQ(k.take(binary, os::WAIT_FOREVER), os::OK);
    EXPECT_EQ(k.now(), 33 * kMs);
    k.delay(3);
    EXPECT_EQ(k.take(binary, os::NO_WAIT), os::OK);  // of two gives
    EXPECT_EQ(k.take(binary, os::NO_WAIT), os::ERROR);
    rig.note("done");
  });
  rig.kernel.at(33 * kMs, [&] { rig.kernel.give(binary); });
  rig.kernel.at(40 * kMs, [&] { rig.kernel.give(binary), rig.kernel.give(binary); });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story({"done"}));
}

TEST(Mutex, WhoWaitsForMoreThanTenSecondsIsNamedOnceWithItsHolder) {
  Rig rig(freeCalls());
  os::Semaphore* mutex = rig.kernel.createMutex("settings");
  rig.task("keeps it", 100, [&] { rig.kernel.take(mutex, os::WAIT_FOREVER); });
  rig.task("patient", 200, [&] { rig.kernel.take(mutex, os::WAIT_FOREVER); });
  rig.task("gives up", 200, [&] {
    EXPECT_EQ(rig.kernel.take(mutex, 1000), os::ERROR);  // ten seconds
    EXPECT_EQ(rig.kernel.take(mutex, 1000), os::ERROR);
    rig.note("gave up");
  });
  rig.kernel.at(10 * kSecond, [&] { rig.note("ten seconds"); });
  rig.runUntil(40 * kSecond);
  EXPECT_EQ(rig.story, Story({"ten seconds", "patient waits for settings of keeps it", "gave up"}));
}

}  // namespace
}  // namespace test
