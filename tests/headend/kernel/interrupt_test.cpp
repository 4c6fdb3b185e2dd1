#include <gtest/gtest.h>

#include "platform/chassis.h"
#include "platform/files.h"
#include "platform/mainboard.h"
#include "platform/memory.h"
#include "tests/headend/headend_run.h"

namespace test {
namespace {

// What the routines below use; they get nothing but a slot number.
struct Objects {
  void (*act)(u8 slot);
  os::MsgQ* queue;
  os::Semaphore *binary, *mutex;
  Headend* headend;
  int wentOn = 0;
  char byte = 'x';
} it;

void maySendWithoutWaitingGiveAndSpeak(u8 slot) {
  os::msgQSend(it.queue, &it.byte, 1, os::NO_WAIT, 0);
  if (os::msgQSend(it.queue, &it.byte, 1, os::NO_WAIT, 0) == os::OK) os::taskLock();  // full: refused
  os::semGive(it.binary);
  chassis::DebugPrint("interrupt of slot %d", slot + os::sysClkRateGet());
}

// Each is done by the interrupt of slot 3, at the first system tick of a chassis without cards. The interrupt
// of slot 4 in the same tick comes only when the run has not ended.
TEST(Interrupt, EndsTheRunWhenItAsksForWhatOnlyATaskMayHave) {
  const std::pair<std::string, void (*)(u8)> rows[] = {
      {"", maySendWithoutWaitingGiveAndSpeak},
      {"malloc", [](u8) { os::free(os::malloc(1)); }},
      {"free", [](u8) { os::free(nullptr); }},
      {"fopen", [](u8) { os::fopen("/tffs0/x", "rb"); }},
      {"para_save", [](u8 slot) { chassis::para_save(slot); }},
      {"a register read", [](u8 slot) { it.wentOn = chassis::pbbFpgaIf->fpgaCfg[slot].fpga_stat; }},
      {"a register write", [](u8 slot) { chassis::pbbFpgaIf->fpgaCfg[slot].fpga_dclk = 1; }},
      {"taskDelay", [](u8) { os::taskDelay(0); }},
      {"taskLock", [](u8) { os::taskLock(); }},
      {"taskUnlock", [](u8) { os::taskUnlock(); }},
      {"taskSpawn", [](u8) { os::taskSpawn("t", 1, 0, 4096, nullptr, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0); }},
      {"msgQCreate", [](u8) { os::msgQCreate(1, 1, 0); }},
      {"msgQSend with a time to wait", [](u8) { os::msgQSend(it.queue, &it.byte, 1, 1, 0); }},
      {"msgQReceive", [](u8) { os::msgQReceive(it.queue, &it.byte, 1, 1); }},
      {"semTake", [](u8) { os::semTake(it.binary, os::WAIT_FOREVER); }},
      {"semGive of a mutex", [](u8) { os::semGive(it.mutex); }},
      {"a counting loop", [](u8) { os::countingLoop(20); }},
      {"sendto", [](u8) { it.headend->backEnd.socket().send({}, {}); }},
      {"recvfrom", [](u8) { it.headend->backEnd.socket().receive(1); }},
  };
  for (const auto& [service, act] : rows) {
    SCOPED_TRACE(service);
    const Scratch scratch;
    fs::create_directories(scratch.path / "flash");
    Headend headend(fastOptions(scratch.path, kSecond, {}));
    headend::Kernel& kernel = headend.kernel;
    it = {act, kernel.createQueue(1, 1), kernel.createBinary(false), kernel.createMutex("mutex"), &headend};
    headend.onTick = [&] {
      const auto routine = [](u8 slot) { it.act(slot), ++it.wentOn; };
      kernel.interrupt("tickRoutine", 2, routine, 2);
      kernel.interrupt(
          "another", 3, [](u8) { ++it.wentOn; }, 3);
    };
    EXPECT_EQ(run(headend), service.empty() ? headend::kExitDone : headend::kExitStopped);
    EXPECT_EQ(it.wentOn > 0, service.empty());
    const std::string error = "interrupt routine tickRoutine of slot 3 called " + service + ": ";
    EXPECT_EQ(kernel.fatalError().substr(0, error.size()), service.empty() ? "" : error);
  }
}

}  // namespace
}  // namespace test
