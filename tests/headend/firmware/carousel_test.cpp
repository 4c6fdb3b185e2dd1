#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <memory>

#include "headend/firmware/carousel_monitor.h"
#include "platform/chassis.h"

namespace {

os::MsgQ* queueNumber(std::uintptr_t n) {
  return reinterpret_cast<os::MsgQ*>(n);  // NOLINT(performance-no-int-to-ptr): a name, never followed
}

// A card in slot 2 whose first channel stores a PAT. How intervals are measured, captures.py shows.
TEST(CarouselMonitor, AnUploadAndAnotherChannelContinueNoGroup) {
  const auto record = std::make_unique<QamCardPara>();
  std::memset(record.get(), 0xFF, sizeof *record);
  record->psiPkt[0][0].psiType = 0;
  record->psiPkt[0][0].psiData[1] = 0x40;
  chassis::card card{};
  card.slotNo = 1;
  card.cardType = QAM_CARD_TYPE;
  card.varPtr = record.get();
  chassis::head = &card;
  headend::CarouselMonitor monitor;
  for (const std::uintptr_t n : {1U, 2U}) monitor.queueCreated(queueNumber(n), 1);
  const auto post = [&](std::uint64_t tick) {
    const std::array<char, sizeof(u32)> first{};
    monitor.posted(queueNumber(1), first, tick);
  };
  post(100);
  monitor.restart(1, 1);
  post(200);
  monitor.restart(1, 0);
  post(5000);
  post(5100);
  const auto& pat = monitor.tables(1, 0)[PAT];
  EXPECT_EQ(pat.intervals, 2U);
  EXPECT_EQ(pat.max_ticks, 100U);
}

}  // namespace
