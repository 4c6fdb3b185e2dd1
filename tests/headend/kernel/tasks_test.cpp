// Tasks as scripts, and what happens; and the clocks.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <sstream>
#include <stdexcept>

#include "tests/headend/kernel/rig.h"

namespace test {
namespace {

using Script = std::vector<std::string>;

Script split(const std::string& text, char at) {
  Script parts;
  std::istringstream in(text);
  for (std::string part; std::getline(in >> std::ws, part, at);) parts.push_back(part);
  return parts;
}
Nanos nanos(const std::string& ms) {
  return std::llround(std::stod(ms) * 1e6);
}

// Scripts are "NAME PRIORITY [TIMES]: STEP; STEP; ...", or "at MS: STEP; ..." for an event, with "|" between
// them. A step is a service of the kernel and its arguments; with a time to wait, in ticks of 10 ms, it waits
// so long, without one forever. The story has each step that fails, what is received, and what "say" adds.
struct Scripts {
  explicit Scripts(const Kernel::Settings& settings = freeCalls()) : rig_(settings) {
    rig_.endless = &register_;
  }

  // The events, each with its time in ms.
  std::string play(const std::string& scripts) {
    for (const std::string& script : split(scripts, '|')) {
      const std::size_t colon = script.find(':');
      const Script head = split(script.substr(0, colon), ' ');
      const auto body = [this, head, steps = split(script.substr(colon + 1), ';')] {
        for (int times = head.size() > 2 ? std::stoi(head[2]) : 1; times > 0; --times) {
          for (const std::string& step : steps) {
            const Script words = split(step, ' ');
            if (perform(head[0], words) == os::ERROR) rig_.tell(head[0] + " " + words[0] + " fails");
          }
        }
      };
      if (head[0] == "at") {
        rig_.kernel.at(nanos(head[1]), body);
      } else {
        rig_.kernel.spawn(head[0], std::stoi(head[1]), body);
      }
    }
    rig_.runUntil(40 * kSecond);
    return fmt::format("{}", fmt::join(rig_.story, ", "));
  }

 private:
  int perform(const std::string& name, const Script& step) {
    Kernel& k = rig_.kernel;
    const std::string& service = step[0];
    const auto ticks = [&](std::size_t i) { return i < step.size() ? std::stoi(step[i]) : os::WAIT_FOREVER; };
    if (service == "say") return rig_.tell(name + " on"), os::OK;
    if (service == "spend") return k.spend(nanos(step[1])), os::OK;
    if (service == "sleep") return k.sleepUntil(k.now() + nanos(step[1])), os::OK;
    if (service == "delay") return k.delay(ticks(1));
    if (service == "lock") return k.lock();
    if (service == "unlock") return k.unlock();
    if (service == "take") return k.take(semaphores_[step[1]], ticks(2));
    if (service == "give") return k.give(semaphores_[step[1]]);
    if (service == "send") return k.send(step[1] == "none" ? k.createQueue(0, 7) : queue_, step[1], ticks(2));
    if (service == "receive") return receive(name, ticks(1), step.size() > 2 ? 2 : 16);
    if (service == "sendto") return socket_.send({.address = 0, .port = socket_.port()}, {1}), os::OK;
    if (service == "recvfrom") return socket_.receive(ticks(1)) ? os::OK : os::ERROR;
    if (service == "spawn") return k.spawn("child", ticks(1), [this] { rig_.tell("child on"); }), os::OK;
    if (service == "set") return register_ = static_cast<std::uint16_t>(ticks(1)), os::OK;
    if (service == "look") return poll(otherRegister_, 0);
    if (service == "kick") return k.kickWatchdog(), os::OK;
    if (service == "poll") return poll(step.size() > 2 ? otherRegister_ : register_, nanos(step[1]));
    if (service == "await") return poll(register_, 100 * kSecond, 1);
    throw std::logic_error("no service " + service);
  }
  int receive(const std::string& name, int timeout, std::size_t room) {
    std::string buffer(room, '.');
    const int length = rig_.kernel.receive(queue_, buffer, timeout);
    if (length >= 0) rig_.tell(name + " gets '" + buffer.substr(0, static_cast<std::size_t>(length)) + "'");
    return length;
  }
  // Reads the register every 10 us until it equals `until`, at most for `most`.
  int poll(const std::uint16_t& reg, Nanos most, int until = -1) {
    const Nanos end = rig_.kernel.now() + most;
    do {
      rig_.kernel.spend(10'000);
      rig_.kernel.notePolling(&reg, reg);
    } while (reg != until && rig_.kernel.now() < end);
    return os::OK;
  }

  Rig rig_;
  headend::Network network_{rig_.kernel};
  headend::UdpSocket socket_{network_, 1000};
  os::MsgQ* queue_ = rig_.kernel.createQueue(2, 4);
  std::map<std::string, os::Semaphore*> semaphores_ = {{"mutex", rig_.kernel.createMutex("mutex")},
                                                       {"binary", rig_.kernel.createBinary(false)},
                                                       {"given", rig_.kernel.createBinary(true)}};
  std::uint16_t register_ = 0, otherRegister_ = 0;
};

// By name: the scripts, and what happens.
void play(std::initializer_list<std::array<std::string, 3>> rows) {
  for (const auto& [name, scripts, happens] : rows) EXPECT_EQ(Scripts().play(scripts), happens) << name;
}

TEST(Tasks, RunByPriorityAndShareInSlices) {
  play({
      {"a cost", "low 200: spend 10; say | high 100: take binary; say; spend 2 | at 3.000007: give binary",
       "high on@3.000007, low on@12"},
      {"equals take turns", "a 150 3: spend 5; say | b 150 3: spend 5; say | high 100 9: delay 1; spend 1",
       "a on@5, b on@16, a on@21, a on@26, b on@27, b on@33"},
      {"displaced", "a 150: spend 5; say | b 150: say | high 100: take binary | at 2: give binary",
       "a on@5, b on@5"},
      {"delay 0", "a 150 2: say; delay 0 | b 150: say; spend 1 | low 151: say",
       "a on@0, b on@0, a on@1, low on@1"},
      {"locks",
       "low 200: lock; lock; spend 35; unlock; spend 35; say; unlock; say; unlock; lock; spend 35; say | "
       "high 100: delay 1; say; delay 1; say",
       "low on@70, high on@70, low on@70, low on@105, high on@105"},
      {"a sleeping holder", "a 100: lock; delay 3; say; spend 50; say; unlock | b 100 4: spend 25; say",
       "b on@25, a on@30, a on@80, b on@100, b on@125, b on@150"},
  });
}

// Whatever makes a higher task ready, it has run before the call returns, which has taken its time.
TEST(Tasks, ThatAreHigherRunBeforeTheCallReturnsThatWokeThem) {
  const std::array<std::string, 3> rows[] = {
      {"receive", "send one", "low on@0.002, high gets 'one'@0.003, high on@0.003, low on@0.003"},
      {"send a; send b; send c", "receive", "low on@0.004, high on@0.005, low gets 'a'@0.005, low on@0.005"},
      {"take binary", "give binary", "low on@0.002, high on@0.003, low on@0.003"},
      {"delay 1; take mutex", "take mutex; spend 15; give mutex",
       "low on@0.002, high on@15.005, low on@15.005"},
      {"take binary", "lock; give binary; say; unlock",
       "low on@0.002, low on@0.004, high on@0.005, low on@0.005"},
      {"delay 0", "spawn 50", "high on@0.002, low on@0.002, child on@0.003, low on@0.003"},
      {"recvfrom", "sendto", "low on@0.002, high on@0.003, low on@0.003"},
  };
  for (const auto& [high, low, happens] : rows) {
    const std::string both = fmt::format("high 100: {}; say | low 200: say; {}; say", high, low);
    EXPECT_EQ(Scripts(Kernel::Settings{}).play(both), happens);
  }
}

TEST(Tasks, PayForEachCallAlsoInVain) {
  const std::pair<bool, Script> rows[] = {
      {true, {"lock", "unlock", "delay 0", "take given", "send x", "sendto", "spawn 200"}},
      {false, {"take none", "give none", "give mutex", "receive 0", "recvfrom 0"}}};
  for (const auto& [succeeds, calls] : rows) {
    for (const std::string& call : calls) {
      const std::string story = Scripts(Kernel::Settings{}).play("a 100: " + call + "; say");
      const std::string failure = "a " + split(call, ' ')[0] + " fails@0.002, ";
      EXPECT_TRUE(story.starts_with((succeeds ? "" : failure) + "a on@0.002")) << call << ": " << story;
    }
  }
}

TEST(Tasks, PassMessagesAndSemaphoresInOrderAndWaitAsLongAsAsked) {
  play({
      {"a queue",
       "a 100: send none; send one 0; send three 0; send two2 0; send full 0; receive 0; receive 0 cut",
       "a send fails@0, a send fails@0, a send fails@0, a gets 'one'@0, a gets 'tw'@0"},
      {"an empty one", "a 100: receive 3; receive 3 cut; receive 0 | b 200: spend 45; send half 0",
       "a receive fails@30, a gets 'ha'@45, a receive fails@45"},
      {"a full one",
       "a 100: send a; send b; send c 3; say; send d; say | b 200: spend 75; receive; receive; receive",
       "a send fails@30, a on@30, a on@75, b gets 'a'@75, b gets 'b'@75, b gets 'd'@75"},
      {"urgency",
       "b 200: delay 2; receive | high 150: delay 2; receive | a 200: delay 1; receive | sends 250: delay 9; "
       "lock; send 1 0; send 2 0; send 3 0; send 4 0; unlock; receive 0",
       "high gets '1'@90, a gets '2'@90, b gets '3'@90, sends gets '4'@90"},
      {"a mutex",
       "a 150: take mutex 0; take mutex 0; delay 2; give mutex; say; give mutex; say; give mutex | high 100: "
       "delay 1; take mutex 0; give mutex; take mutex; say; give mutex",
       "high take fails@10, high give fails@10, a on@20, high on@20, a on@20, a give fails@20"},
      {"a flag",
       "a 100: take given 0; take given 0; take given 2; take given; say; delay 3; take given 0; take given "
       "0 | at 33: give given | at 40: give given; give given",
       "a take fails@0, a take fails@20, a on@33, a take fails@60"},
      {"a long wait", "a 100: take mutex | b 200: take mutex | c 200: take mutex 1000; take mutex 1000; say",
       "c take fails@10000, b waits for mutex of a@10010, c take fails@20000, c on@20000"},
  });
}

TEST(Tasks, ThatPollForASecondAreParkedUntilTheRegisterChanges) {
  play({
      {"locked",
       "a 100: delay 1; lock; await; say; spend 50; unlock | b 200 4: delay 2; spend 1000; say | at 4003: "
       "set 1",
       "a parked@1010.01, b on@2010.01, b on@3030, a released@4010, a on@4010, b on@4100, b on@5120"},
      {"not quite", "a 100: poll 999.98; delay 10000", ""},
  });
  for (const std::string between :
       {"set 1; poll 10; set 0", "look", "delay 1", "delay 0", "lock", "unlock", "send x 0", "receive 0",
        "take binary 0", "give binary", "recvfrom 0", "sendto", "sleep 0.01", "spawn 50"}) {
    const std::string story = Scripts().play("polls 100 300: poll 10; " + between);
    EXPECT_EQ(story.find("parked"), std::string::npos) << between;
  }
}

// A task's own time counts, from the last kick of any task or its last wait on.
TEST(Tasks, ThatRunLongWithoutAKickAreNamedOnce) {
  const std::array<std::string, 2> rows[] = {
      {"a 100: spend 500; say", "a on@500"},
      {"a 100: spend 501; say", "a on@501, a not kicked@501"},
      {"a 100: spend 2000; kick; spend 600", "a not kicked@510, a not kicked@2510"},
      {"a 200: spend 900; say | b 100 9: delay 20; kick", "a on@900"},
      {"a 200: spend 400; say | b 100: delay 1; spend 450", "a on@850"},
      {"a 100 3: spend 400; delay 1", ""},
      {"a 100 3: spend 300; delay 0", "a not kicked@510"},
      {"a 100 3: send x; spend 300; receive", "a gets 'x'@300, a gets 'x'@600, a gets 'x'@900"},
      {"a 100 3: send x; spend 300; receive 0",
       "a gets 'x'@300, a not kicked@510, a gets 'x'@600, a gets 'x'@900"},
      {"a 100: spend 200; poll 900; look; spend 250; say", "a on@1350.01"},
      {"a 100: spend 200; poll 900; look; spend 310; say", "a not kicked@1410, a on@1410.01"},
      {"a 100: poll 900 other; delay 1000", "a not kicked@510"},
      {"a 100: await", "a parked@1000.01"},
  };
  for (const auto& [scripts, happens] : rows) {
    Kernel::Settings settings = freeCalls();
    settings.watchdog = 500 * kMs;
    EXPECT_EQ(Scripts(settings).play(scripts), happens) << scripts;
  }
}

// ---- Clocks ----

// Idle, and under a task whose every piece of work reaches over many ticks. The interrupts' time counts for
// no task.
TEST(Tasks, HearTheNthTickAtNTimesThePeriodHoweverLongTheRun) {
  for (const int hz : {1000, 100, 60, 7}) {
    for (const bool busy : {false, true}) {
      Rig rig(freeCalls(hz, hz));
      static Kernel* kernel = nullptr;
      kernel = &rig.kernel;
      Nanos ticks = 0, auxTicks = 0, wrong = 0;
      const auto tick = [&](Nanos n) { wrong += kernel->now() == n * kSecond / hz ? 0 : 1; };
      rig.onTick = [&] { tick(++ticks); };
      rig.onAux = [&] {
        tick(++auxTicks);
        kernel->interrupt(
            "slow", 0, [](u8) { kernel->spend(kMs / 2); }, 0);
      };
      const auto work = [&] {
        for (;;) kernel->spend(333'333'337);
      };
      if (busy) rig.kernel.spawn("busy", 10, work);
      const Nanos all = 300'000 / hz * hz;
      rig.runUntil(300'000 / hz * kSecond + 1);
      EXPECT_EQ(std::tuple(ticks, auxTicks, kernel->interruptTime()), std::tuple(all, all, all * kMs / 2));
      EXPECT_EQ(wrong, 0) << hz;
    }
  }
}

}  // namespace
}  // namespace test
