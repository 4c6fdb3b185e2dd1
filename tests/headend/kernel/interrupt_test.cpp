#include <gtest/gtest.h>

#include "platform/chassis.h"
#include "platform/files.h"
#include "platform/mainboard.h"
#include "platform/memory.h"
#include "tests/headend/headend_run.h"
#include "tests/headend/kernel/rig.h"

namespace test {
namespace {

// What the routines below use; they get nothing but a slot number.
struct Objects {
  void (*act)(u8 slot) = nullptr;
  os::MsgQ* queue = nullptr;
  os::Semaphore* binary = nullptr;
  os::Semaphore* mutex = nullptr;
  Headend* headend = nullptr;
  bool wentOn = false;
  char byte = 'x';
};
Objects it;

int nobody(int, int, int, int, int, int, int, int, int, int) {
  return 0;
}

// Does `act` as an interrupt at the first system tick of a chassis without cards.
std::string fatalErrorOf(void (*act)(u8)) {
  const Scratch scratch;
  fs::create_directories(scratch.path / "flash");
  Headend headend(fastOptions(scratch.path, kSecond, {}));
  it = {.act = act,
        .queue = headend.kernel().createQueue(1, 1),
        .binary = headend.kernel().createBinary(false),
        .mutex = headend.kernel().createMutex("mutex"),
        .headend = &headend};
  const auto routine = [](u8 slot) { it.act(slot), it.wentOn = true; };
  headend.onTick([&] { headend.kernel().interrupt("tickRoutine", 2, routine, 2); });
  const int exitCode = run(headend);
  EXPECT_EQ(exitCode, it.wentOn ? headend::kExitDone : headend::kExitStopped);
  return headend.kernel().fatalError();
}

TEST(Interrupt, EndsTheRunWhenItAsksForWhatOnlyATaskMayHave) {
  const std::pair<const char*, void (*)(u8)> rows[] = {
      {"malloc", [](u8) { os::free(os::malloc(1)); }},
      {"free", [](u8) { os::free(nullptr); }},
      {"fopen", [](u8) { os::fopen("/tffs0/x", "rb"); }},
      {"para_save", [](u8 slot) { chassis::para_save(slot); }},
      {"a register read",
       [](u8 slot) { it.byte = static_cast<char>(chassis::pbbFpgaIf->fpgaCfg[slot].fpga_stat); }},
      {"a register write", [](u8 slot) { chassis::pbbFpgaIf->fpgaCfg[slot].fpga_dclk = 1; }},
      {"taskDelay", [](u8) { os::taskDelay(0); }},
      {"taskLock", [](u8) { os::taskLock(); }},
      {"taskUnlock", [](u8) { os::taskUnlock(); }},
      {"taskSpawn", [](u8) { os::taskSpawn("t", 1, 0, 4096, nobody, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0); }},
      {"msgQCreate", [](u8) { os::msgQCreate(1, 1, 0); }},
      {"msgQSend", [](u8) { os::msgQSend(it.queue, &it.byte, 1, 1, 0); }},
      {"msgQSend", [](u8) { os::msgQSend(it.queue, &it.byte, 1, os::WAIT_FOREVER, 0); }},
      {"msgQReceive", [](u8) { os::msgQReceive(it.queue, &it.byte, 1, 1); }},
      {"semTake", [](u8) { os::semTake(it.binary, os::WAIT_FOREVER); }},
      {"semGive", [](u8) { os::semGive(it.mutex); }},
      {"a counting loop", [](u8) { os::countingLoop(20); }},
      {"recvfrom", [](u8) { it.headend->backEnd().socket().receive(1); }},
  };
  for (const auto& [service, act] : rows) {
    const std::string error = fatalErrorOf(act);
    EXPECT_TRUE(error.starts_with(std::string("interrupt routine tickRoutine of slot 3 called ") + service))
        << error;
    EXPECT_FALSE(it.wentOn) << service;
  }
}

TEST(Interrupt, MaySendWithoutWaitingGiveAndSpeak) {
  const std::string error = fatalErrorOf([](u8 slot) {
    os::msgQSend(it.queue, &it.byte, 1, os::NO_WAIT, 0);
    if (os::msgQSend(it.queue, &it.byte, 1, os::NO_WAIT, 0) == os::OK) os::taskLock();  // full: refused
    os::semGive(it.binary);
    chassis::DebugPrint("interrupt of slot %d", slot + os::sysClkRateGet());
  });
  EXPECT_EQ(error, "");
  EXPECT_TRUE(it.wentOn);
}

// The routine that was stopped stays stopped, though another slot's comes in the same tick.
TEST(Interrupt, NothingOfAStoppedRoutineIsCarriedOutLater) {
  Rig rig;
  static Rig* its = nullptr;
  its = &rig;
  int ticks = 0;
  rig.onAux = [&] {
    ++ticks;
    const auto bad = [](u8) { its->kernel.requireTask("malloc"), its->tell("allocated"); };
    rig.kernel.interrupt("bad", 0, bad, 0);
    rig.kernel.interrupt(
        "good", 1, [](u8) { its->tell("good"); }, 1);
  };
  rig.task("busy", 100, [&] { rig.kernel.spend(kSecond), rig.tell("went on"); });
  rig.runUntil(2 * kSecond);
  EXPECT_EQ(ticks, 1);
  EXPECT_EQ(rig.story, Story{});
  EXPECT_NE(rig.kernel.fatalError().find("bad of slot 1"), std::string::npos);
}

}  // namespace
}  // namespace test
