// What the headend's observation of its cards finds: tasks that hang, and the intervals of tables.
#include <gtest/gtest.h>

#include <array>
#include <memory>

#include "headend/firmware/carousel_monitor.h"
#include "platform/chassis.h"
#include "tests/headend/headend_run.h"

namespace test {
namespace {

// The output's clock is off for a while: the send task polls its ready register meanwhile. The other channel
// and the other card send on; and so does the task when the clock is back.
TEST(CardStates, ASendTaskWithoutAReadyOutputHangsAloneAndIsNamedOnce) {
  const Scratch scratch;
  headend::initFlash(scratch.path / "flash");
  auto options = fastOptions(scratch.path, 10 * kSecond, {0, 2});
  for (const std::string channel : {"1.1", "3.1", "3.2"})
    options.jobs.push_back(headend::jobOf("psi load " + channel + " " QAM_SAMPLES "/psi-small.ts"));
  Headend headend(options);
  headend::Kernel& kernel = headend.kernel;
  headend::Multiplexer& output = headend.card(2).output(1);
  kernel.at(3 * kSecond, [&] { output.stop(kernel.now()); });
  kernel.at(8 * kSecond, [&] {
    EXPECT_EQ(headend.state(2), protocol::CardState::kHung);
    output.start(kernel.now(), output.rate());
  });
  EXPECT_EQ(run(headend), headend::kExitDone);
  for (const int slot : {0, 2}) {
    EXPECT_EQ(headend.state(slot), protocol::CardState::kRunning);
    EXPECT_GE(headend.card(slot).output(0).counts().psi, 100U);
  }
  const std::string log = readText(scratch.path / "log");
  const std::size_t named = log.find("qam2PSISend1 has polled slot 3 PsiRdy1 since ");
  EXPECT_EQ(named + std::string("qam2PSISend1").size(), log.rfind(" has polled")) << log;
}

// A card in slot 2 whose first channel stores a PAT. How intervals are measured, captures.py shows.
TEST(CarouselMonitor, AnUploadAndAnotherChannelContinueNoGroup) {
  const auto record = std::make_unique<QamCardPara>();
  record->psiPkt[0][0].psiData[1] = 0x40;
  chassis::card card{};
  card.slotNo = 1;
  card.cardType = QAM_CARD_TYPE;
  card.varPtr = record.get();
  chassis::head = &card;
  headend::CarouselMonitor monitor;
  std::array<char, 2> queues{};  // their addresses name them, and are never followed
  const auto* queue = reinterpret_cast<const os::MsgQ*>(queues.data());
  for (char& each : queues) monitor.queueCreated(reinterpret_cast<const os::MsgQ*>(&each), 1);
  const auto post = [&](std::uint64_t tick) { monitor.posted(queue, std::array<char, sizeof(u32)>{}, tick); };
  post(100);
  monitor.restart(1, 1);
  post(200);
  monitor.restart(1, 0);
  post(5000);
  post(5100);
  const auto& pat = monitor.tables(1, 0)[PAT];
  const std::array<std::uint64_t, 3> found{pat.posted, pat.intervals, pat.max_ticks};
  EXPECT_EQ(found, (std::array<std::uint64_t, 3>{4, 2, 100}));
}

}  // namespace
}  // namespace test
