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

// Runs `routine` as an interrupt at the first system tick of a chassis without cards.
std::string fatalErrorOf(void (*routine)(u8), int& exitCode) {
  const Scratch scratch;
  fs::create_directories(scratch.path / "flash");
  Headend headend(fastOptions(scratch.path, kSecond, {}));
  it = {.queue = headend.kernel().createQueue(1, 1),
        .binary = headend.kernel().createBinary(false),
        .mutex = headend.kernel().createMutex("mutex"),
        .headend = &headend};
  headend.onTick([&] { headend.kernel().interrupt("tickRoutine", 2, routine, 2); });
  exitCode = run(headend);
  return headend.kernel().fatalError();
}

TEST(Interrupt, EndsTheRunWhenItAsksForWhatOnlyATaskMayHave) {
  struct Row {
    const char* service;
    void (*routine)(u8);
  };
  const Row rows[] = {
      {"malloc", [](u8) { os::free(os::malloc(1)), it.wentOn = true; }},
      {"free", [](u8) { os::free(nullptr), it.wentOn = true; }},
      {"fopen", [](u8) { it.wentOn = os::fopen("/tffs0/x", "rb") == nullptr; }},
      {"para_save", [](u8 slot) { chassis::para_save(slot), it.wentOn = true; }},
      {"register read", [](u8 slot) { it.wentOn = chassis::pbbFpgaIf->fpgaCfg[slot].fpga_stat < 99; }},
      {"register write", [](u8 slot) { chassis::pbbFpgaIf->fpgaCfg[slot].fpga_dclk = 1, it.wentOn = true; }},
      {"taskDelay", [](u8) { os::taskDelay(0), it.wentOn = true; }},
      {"taskLock", [](u8) { os::taskLock(), it.wentOn = true; }},
      {"taskUnlock", [](u8) { os::taskUnlock(), it.wentOn = true; }},
      {"taskSpawn",
       [](u8) { os::taskSpawn("t", 1, 0, 4096, nobody, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0), it.wentOn = true; }},
      {"msgQCreate", [](u8) { os::msgQCreate(1, 1, 0), it.wentOn = true; }},
      {"msgQSend", [](u8) { os::msgQSend(it.queue, &it.byte, 1, 1, 0), it.wentOn = true; }},
      {"msgQSend", [](u8) { os::msgQSend(it.queue, &it.byte, 1, os::WAIT_FOREVER, 0), it.wentOn = true; }},
      {"msgQReceive", [](u8) { os::msgQReceive(it.queue, &it.byte, 1, 1), it.wentOn = true; }},
      {"semTake", [](u8) { os::semTake(it.binary, os::WAIT_FOREVER), it.wentOn = true; }},
      {"semGive", [](u8) { os::semGive(it.mutex), it.wentOn = true; }},
      {"counting loop", [](u8) { os::countingLoop(20), it.wentOn = true; }},
      {"recvfrom", [](u8) { it.headend->backEnd().socket().receive(1), it.wentOn = true; }},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.service);
    int exitCode = 0;
    const std::string error = fatalErrorOf(row.routine, exitCode);
    EXPECT_EQ(exitCode, headend::kExitStopped);
    for (const char* part : {"tickRoutine", "slot 3", row.service}) {
      EXPECT_NE(error.find(part), std::string::npos) << error;
    }
    EXPECT_FALSE(it.wentOn);
  }
}

TEST(Interrupt, MaySendWithoutWaitingGiveAndSpeak) {
  int exitCode = 0;
  const std::string error = fatalErrorOf(
      [](u8 slot) {
        os::msgQSend(it.queue, &it.byte, 1, os::NO_WAIT, 0);
        it.wentOn = os::msgQSend(it.queue, &it.byte, 1, os::NO_WAIT, 0) == os::ERROR;  // full
        os::semGive(it.binary);
        chassis::DebugPrint("interrupt of slot %d", slot + os::sysClkRateGet());
      },
      exitCode);
  EXPECT_EQ(error, "");
  EXPECT_EQ(exitCode, headend::kExitDone);
  EXPECT_TRUE(it.wentOn);
}

// The routine that was stopped stays stopped, though another slot's comes in the same tick.
TEST(Interrupt, NothingOfAStoppedRoutineIsCarriedOutLater) {
  Rig rig;
  static Rig* its = nullptr;
  its = &rig;
  int routines = 0;
  rig.onAux = [&] {
    ++routines;
    rig.kernel.interrupt(
        "bad", 0, [](u8) { its->kernel.requireTask("malloc"), its->note("allocated"); }, 0);
    rig.kernel.interrupt(
        "good", 1, [](u8) { its->note("good"); }, 1);
  };
  rig.task("busy", 100, [&] {
    rig.kernel.spend(kSecond);
    rig.note("task went on");
  });
  rig.runUntil(2 * kSecond);
  EXPECT_EQ(routines, 1);
  EXPECT_EQ(rig.story, Story());
  EXPECT_NE(rig.kernel.fatalError().find("bad of slot 1"), std::string::npos);
}

}  // namespace
}  // namespace test
