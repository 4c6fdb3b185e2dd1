#include <gtest/gtest.h>

#include <cstring>
#include <memory>

#include "headend/firmware/carousel_monitor.h"
#include "platform/chassis.h"

namespace {

using client::TableType;

os::MsgQ* queueNumber(std::uintptr_t n) {
  return reinterpret_cast<os::MsgQ*>(n);  // NOLINT(performance-no-int-to-ptr): a name, never followed
}

// A card in slot 2 whose first channel stores a PAT. How intervals are measured, captures.py shows.
class CarouselMonitor : public testing::Test {
 protected:
  CarouselMonitor() {
    std::memset(record_.get(), 0xFF, sizeof *record_);
    record_->psiPkt[0][0].psiType = 0;
    record_->psiPkt[0][0].psiData[1] = 0x40;
    card_.slotNo = 1;
    card_.cardType = QAM_CARD_TYPE;
    card_.varPtr = record_.get();
    chassis::head = &card_;
    for (const std::uintptr_t n : {1U, 2U}) monitor_.queueCreated(queueNumber(n), 1);
  }
  void post(u32 index, std::uint64_t tick, std::uintptr_t queue = 1) {
    monitor_.posted(queueNumber(queue), {reinterpret_cast<const char*>(&index), sizeof index}, tick);
  }

  std::unique_ptr<QamCardPara> record_ = std::make_unique<QamCardPara>();
  chassis::card card_{};
  headend::CarouselMonitor monitor_;
};

TEST_F(CarouselMonitor, AnUploadAndAnotherChannelContinueNoGroup) {
  post(0, 100);
  monitor_.restart(1, 1);
  post(0, 200);
  monitor_.restart(1, 0);
  post(0, 5000);
  post(0, 5100);
  const auto& pat = monitor_.tables(1, 0)[client::indexOf(TableType::kPat)];
  EXPECT_EQ(pat.intervals, 2U);
  EXPECT_EQ(pat.max_ticks, 100U);
  post(0, 6000, 2);  // free places of the second channel's store: of no table
  post(512, 6001);
  post(0, 6002, 3);  // no channel's queue
  EXPECT_EQ(monitor_.tables(1, 0)[client::indexOf(TableType::kPat)].posted, 4U);
  EXPECT_EQ(monitor_.tables(1, 1)[client::indexOf(TableType::kPat)].posted, 0U);
}

}  // namespace
