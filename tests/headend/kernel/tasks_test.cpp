// Tasks as scripts, and what happens.
#include <gtest/gtest.h>

#include "tests/headend/kernel/rig.h"

namespace test {
namespace {

struct Row {
  const char* name;
  std::vector<std::string> scripts;
  const char* happens;
  Nanos end = kSecond;
};

void play(std::initializer_list<Row> rows) {
  for (const Row& row : rows) EXPECT_EQ(Scripts().play(row.scripts, row.end), row.happens) << row.name;
}

TEST(Tasks, RunByPriorityAndShareInSlices) {
  play({
      {"a higher one comes in the middle of a cost",
       {"low 200: spend 10; say done", "high 100: take binary; say runs; spend 2",
        "at 3.000007: give binary"},
       "high runs@3.000007, low done@12"},
      {"equals take turns of a tick",
       {"a 150 3: spend 4; say on", "b 150 3: spend 4; say on", "c 150 3: spend 4; say on",
        "low 151: say runs"},
       "a on@4, a on@8, b on@14, b on@18, c on@24, c on@28, a on@32, b on@34, c on@36, low runs@36"},
      {"also where a higher one comes with each tick",
       {"a 150 3: spend 5; say on", "b 150 3: spend 5; say on", "high 100 9: delay 1; spend 1"},
       "a on@5, b on@16, a on@21, a on@26, b on@27, b on@33"},
      {"a displaced one goes on before its equals",
       {"first 150: spend 5; say done", "second 150: say runs", "high 100: take binary; say runs",
        "at 2: give binary"},
       "high runs@2, first done@5, second runs@5"},
      {"a delay of 0 lets equals run and no lower one",
       {"first 150 3: say on; delay 0", "equal 150: say runs; spend 1", "low 151: say runs"},
       "first on@0, equal runs@0, first on@1, first on@1, low runs@1"},
      {"a delay ends with the nth tick",
       {"at_once 100: delay 1; say on", "on_a_tick 101: delay 3; delay 90; say on",
        "before_one 102: spend 29.999999; delay 1; say on"},
       "at_once on@10, before_one on@30, on_a_tick on@930"},
      {"also from within a tick", {"only 100: spend 35; delay 2; say on"}, "only on@50"},
      {"a lock keeps all others out until the last unlock, and an unlock too many is no debt",
       {"low 200: lock; lock; spend 35; unlock; spend 35; say unlocks; unlock; say on; unlock; lock; spend "
        "35; say on",
        "high 100: delay 1; say on; delay 1; say on"},
       "low unlocks@70, high on@70, low on@70, low on@105, high on@105"},
      {"a lock is set aside while its holder sleeps",
       {"holder 100: lock; delay 3; say on; spend 50; say unlocks; unlock", "other 100 5: spend 25; say on"},
       "other on@25, holder on@30, holder unlocks@80, other on@100, other on@125, other on@150, other "
       "on@175"},
      {"also while it waits",
       {"holder 100: lock; receive 3; spend 50; say unlocks; unlock", "other 100 3: spend 25; say on"},
       "other on@25, holder receive fails@30, holder unlocks@80, other on@100, other on@125"},
  });
}

// Whatever makes a higher task ready, it has run before the call returns, which has taken its time.
TEST(Tasks, ThatAreHigherRunBeforeTheCallReturnsThatWokeThem) {
  struct Pair {
    const char *high, *low, *happens;
  };
  const Pair rows[] = {
      {"receive", "send one", "low wakes@0.002, high gets 'one'@0.003, high on@0.003, low on@0.003"},
      {"send a; send b; send c", "receive",
       "low wakes@0.004, high on@0.005, low gets 'a'@0.005, low on@0.005"},
      {"take binary", "give binary", "low wakes@0.002, high on@0.003, low on@0.003"},
      {"delay 1; take mutex", "take mutex; spend 15; give mutex",
       "low wakes@0.002, high on@15.005, low on@15.005"},
      {"take binary", "lock; give binary; say locked; unlock",
       "low wakes@0.002, low locked@0.004, high on@0.005, low on@0.005"},
      {"delay 0", "spawn 50", "high on@0.002, low wakes@0.002, child runs@0.003, low on@0.003"},
      {"recvfrom", "sendto", "low wakes@0.002, high on@0.003, low on@0.003"},
  };
  for (const Pair& row : rows) {
    const std::string high = std::string("high 100: ") + row.high + "; say on";
    const std::string low = std::string("low 200: say wakes; ") + row.low + "; say on";
    EXPECT_EQ(Scripts(Kernel::Settings{}).play({high, low}), row.happens);
  }
}

TEST(Tasks, PayForEachCallAlsoInVain) {
  for (const std::string call :
       {"lock", "unlock", "delay 0", "take given", "take none", "give none", "give mutex", "send x",
        "send tolong", "receive 0", "recvfrom 0", "sendto", "spawn 200"}) {
    const std::string story = Scripts(Kernel::Settings{}).play({"only 100: " + call + "; say on"});
    EXPECT_NE(story.find("only on@0.002"), std::string::npos) << call << ": " << story;
  }
}

TEST(Tasks, PassMessagesInOrderAndWaitAsLongAsAsked) {
  play({
      {"in order, cut to the room, refused when too long or without room",
       {"only 100: receive 0; send one 0; send three 0; send two2 0; send full 0; receive 0; receive 0 2; "
        "receive 0"},
       "only receive fails@0, only send fails@0, only send fails@0, only gets 'one'@0, only gets 'tw'@0, "
       "only receive fails@0"},
      {"waits for a message",
       {"waits 100: receive 3; receive 3 2; receive 0", "partner 200: spend 45; send half 0"},
       "waits receive fails@30, waits gets 'ha'@45, waits receive fails@45"},
      {"waits for room",
       {"waits 100: send a; send b; send c 3; say refused; send d; say sent",
        "partner 200: spend 75; receive; receive; receive; receive 0"},
       "waits send fails@30, waits refused@30, waits sent@75, partner gets 'a'@75, partner gets 'b'@75, "
       "partner gets 'd'@75, partner receive fails@75"},
      {"the most urgent receiver is first, then the first to come",
       {"second_low 200: delay 2; receive", "high 150: delay 2; receive", "first_low 200: delay 1; receive",
        "highest 100: delay 3; receive",
        "sender 250: delay 9; lock; send 1 0; send 2 0; send 3 0; send 4 0; send 5 0; unlock; receive 0"},
       "highest gets '1'@90, high gets '2'@90, first_low gets '3'@90, second_low gets '4'@90, sender gets "
       "'5'@90"},
  });
}

TEST(Tasks, GetNoQueueWithoutRoomAndNothingFromNone) {
  Rig rig;
  rig.task("only", 100, [&] {
    EXPECT_EQ(rig.kernel.createQueue(0, 4), nullptr);
    EXPECT_EQ(rig.kernel.send(nullptr, {}, os::NO_WAIT), os::ERROR);
    EXPECT_EQ(rig.kernel.receive(nullptr, {}, os::WAIT_FOREVER), os::ERROR);
    rig.note("done");
  });
  rig.runUntil(kSecond);
  EXPECT_EQ(rig.story, Story{"done"});
}

TEST(Tasks, TakeAndGiveSemaphores) {
  play({
      {"a mutex is its owner's again and again, and goes over with the last give",
       {"owner 150: take mutex 0; take mutex 0; delay 2; give mutex; say one_back; give mutex; say "
        "both_back; give "
        "mutex; take mutex 2; take mutex; say on",
        "high 100: delay 1; take mutex 0; give mutex; take mutex; say on; give mutex",
        "low 200: delay 1; take mutex; delay 5; give mutex"},
       "high take fails@10, high give fails@10, owner one_back@20, high on@20, owner both_back@20, "
       "owner give fails@20, owner take fails@40, owner on@70"},
      {"a binary one wakes one task a give and remembers one give",
       {"taker 100: take given 0; take given 0; take given 2; take given; say on; delay 3; take given 0; "
        "take given 0",
        "at 33: give given", "at 40: give given; give given"},
       "taker take fails@0, taker take fails@20, taker on@33, taker take fails@60"},
      {"null is refused",
       {"only 100: take none; give none; say on"},
       "only take fails@0, only give fails@0, only on@0"},
      {"who waits for more than ten seconds is told once, with the holder",
       {"keeper 100: take mutex", "patient 200: take mutex",
        "gives_up 200: take mutex 1000; take mutex 1000; say on"},
       "gives_up take fails@10000, patient waits for mutex of keeper@10010, gives_up take fails@20000, "
       "gives_up on@20000",
       40 * kSecond},
  });
}

TEST(Tasks, ThatPollForASecondAreParkedUntilTheRegisterChanges) {
  play({{"with its lock",
         {"polls 100: delay 1; lock; await; say on; spend 50; unlock; delay 1000",
          "other 200 4: delay 2; spend 1000; say on", "at 4003: set 1"},
         "polls parked@1010.01, other on@2010.01, other on@3030, polls released@4010, polls on@4010, "
         "other on@4100, other on@5120",
         6 * kSecond}});
  const std::pair<const char*, const char*> rows[] = {
      {"poll 999.98", ""},
      {"poll 1001", "polls parked@1000.01"},
      {"poll 10000", "polls parked@1000.01"},
  };
  for (const auto& [script, happens] : rows) {
    EXPECT_EQ(Scripts().play({std::string("polls 100: ") + script + "; delay 10000"}, 20 * kSecond), happens);
  }
  for (const std::string between :
       {"set 1; poll 10; set 0", "look", "delay 1", "delay 0", "lock", "unlock", "send x 0", "receive 0",
        "take binary 0", "give binary", "recvfrom 0", "sendto", "sleep 0.01", "spawn 50"}) {
    const std::string story = Scripts().play({"polls 100 300: poll 10; " + between}, 20 * kSecond);
    EXPECT_EQ(story.find("parked"), std::string::npos) << between;
  }
}

}  // namespace
}  // namespace test
