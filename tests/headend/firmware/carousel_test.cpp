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

// A card in slot 2 whose first channel stores a PAT, two SDT sections of two and one packets, and three PMT
// packets that all open a section.
class CarouselMonitor : public testing::Test {
 public:
  CarouselMonitor(const CarouselMonitor&) = delete;
  CarouselMonitor& operator=(const CarouselMonitor&) = delete;
  ~CarouselMonitor() override { chassis::head = nullptr; }

 protected:
  CarouselMonitor() {
    std::memset(record_.get(), 0xFF, sizeof *record_);
    std::size_t place = 0;
    for (const auto& [type, starts] :
         {std::pair{0, true}, {2, true}, {2, false}, {2, true}, {1, true}, {1, true}, {1, true}}) {
      outPsiPkt_t& packet = record_->psiPkt[0][place++];
      packet.psiType = static_cast<u8>(type);
      packet.psiData[1] = starts ? 0x40 : 0;
    }
    card_.slotNo = 1;
    card_.cardType = QAM_CARD_TYPE;
    card_.varPtr = record_.get();
    chassis::head = &card_;
    for (const std::uintptr_t n : {1U, 2U}) monitor_.queueCreated(queueNumber(n), 1);
  }
  void post(u32 index, std::uint64_t tick, std::uintptr_t queue = 1) {
    const auto* bytes = reinterpret_cast<const char*>(&index);
    monitor_.posted(queueNumber(queue), {bytes, sizeof index}, tick);
  }
  const headend::CarouselMonitor::Table& table(TableType type, int port = 0) {
    return monitor_.tables(1, port)[client::indexOf(type)];
  }

  std::unique_ptr<QamCardPara> record_ = std::make_unique<QamCardPara>();
  chassis::card card_{};
  headend::CarouselMonitor monitor_;
};

TEST_F(CarouselMonitor, MeasuresFromStartToStartOfGroups) {
  for (const std::uint64_t tick : {5U, 105U, 215U, 305U}) post(0, tick);
  EXPECT_EQ(table(TableType::kPat).posted, 4U);
  EXPECT_EQ(table(TableType::kPat).intervals, 3U);
  EXPECT_EQ(table(TableType::kPat).min_ticks, 90U);
  EXPECT_EQ(table(TableType::kPat).max_ticks, 110U);
  EXPECT_EQ(table(TableType::kPat).sum_ticks, 300U);

  for (const auto& [index, tick] : {std::pair{1, 10}, {2, 11}, {3, 60}, {1, 110}, {2, 111}}) {
    post(static_cast<u32>(index), static_cast<std::uint64_t>(tick));
  }
  EXPECT_EQ(table(TableType::kSdtC).posted, 5U);
  EXPECT_EQ(table(TableType::kSdtC).intervals, 2U);  // each section is a group
  EXPECT_EQ(table(TableType::kSdtC).min_ticks, 50U);

  for (std::uint64_t round = 0; round < 3; ++round) {
    for (u32 i = 0; i < 3; ++i) post(4 + i, 1000 + 30 * round + i);
  }
  EXPECT_EQ(table(TableType::kPmt).posted, 9U);
  EXPECT_EQ(table(TableType::kPmt).intervals, 2U);  // all of them together are one
  EXPECT_EQ(table(TableType::kPmt).min_ticks, 30U);
  EXPECT_EQ(table(TableType::kPmt).max_ticks, 30U);
}

TEST_F(CarouselMonitor, AnUploadAndAnotherChannelContinueNoGroup) {
  post(0, 100);
  monitor_.restart(1, 1);
  post(0, 200);
  monitor_.restart(1, 0);
  post(0, 5000);
  post(0, 5100);
  EXPECT_EQ(table(TableType::kPat).intervals, 2U);
  EXPECT_EQ(table(TableType::kPat).max_ticks, 100U);
  post(0, 6000, 2);  // free places of the second channel's store: of no table
  post(512, 6001);
  post(0, 6002, 3);  // nobody's queue
  EXPECT_EQ(table(TableType::kPat).posted, 4U);
  EXPECT_EQ(table(TableType::kPat, 1).posted, 0U);
}

}  // namespace
