// What the headend's observation of its cards finds: tasks that hang, and the intervals of tables.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "headend/firmware/carousel_monitor.h"
#include "headend/firmware/pid_meter.h"
#include "platform/chassis.h"
#include "tests/headend/headend_run.h"
#include "tests/headend/packets.h"

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

// A card in slot 2 whose first channel stores a PAT, an SDT_C, and an SDT_O of four packets.
struct CarouselMonitor : testing::Test {
  CarouselMonitor() {
    for (const auto& [index, type] :
         {std::pair{0, PAT}, {1, SDT_C}, {2, SDT_O}, {3, SDT_O}, {4, SDT_O}, {5, SDT_O}}) {
      record->psiPkt[0][index].psiType = type;
      record->psiPkt[0][index].psiData[1] = index < 3 ? 0x40 : 0;
    }
    std::ranges::fill(record->Interval[0], u16{10});
    card.slotNo = 1;
    card.cardType = QAM_CARD_TYPE;
    card.varPtr = record.get();
    chassis::head = &card;
    for (char& each : queues) monitor.queueCreated(reinterpret_cast<const os::MsgQ*>(&each), 1);
  }
  void post(std::uint64_t tick, u32 index = 0) {
    monitor.posted(reinterpret_cast<const os::MsgQ*>(queues.data()),
                   {reinterpret_cast<const char*>(&index), sizeof index}, tick);
  }

  const std::unique_ptr<QamCardPara> record = std::make_unique<QamCardPara>();
  chassis::card card{};
  headend::CarouselMonitor monitor;
  std::array<char, 2> queues{};  // their addresses name them, and are never followed
};

// How intervals are measured, captures.py shows.
TEST_F(CarouselMonitor, AnUploadAndAnotherChannelContinueNoGroup) {
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

// Tick and packet, as a card would post them. Two tables share a PID.
TEST_F(CarouselMonitor, AGroupThatWaitsForItsPidOrWasStoppedIsNotLate) {
  for (const auto& [tick, index] :
       {std::pair{100, 1}, {106, 2}, {107, 3}, {109, 4}, {111, 5}, {112, 1}, {125, 1}})
    post(static_cast<u64>(tick), static_cast<u32>(index));
  const auto stored = monitor.starts(1, 0, 2, 140).groups;
  std::vector<std::array<u64, 5>> found;
  found.reserve(stored.size());
  for (const auto& g : stored) found.push_back({g.number, g.tick, g.interval, g.held, g.late()});
  EXPECT_EQ(found,
            (std::vector<std::array<u64, 5>>{{2, 106, 0, 0, 0}, {3, 112, 12, 2, 0}, {4, 125, 13, 0, 3}}));
  const auto overdue = [&] { return monitor.starts(1, 0, 0, 140).tables[SDT_C].overdue; };
  EXPECT_EQ(overdue(), 5U);
  post(136, 2);  // its section is not complete: it has the PID
  EXPECT_EQ(overdue(), 0U);
  record->Interval[0][SDT_C] = 0;
  monitor.intervalSet(1, 0);
  post(900, 1);
  EXPECT_EQ(monitor.starts(1, 0, 6, 900).groups.at(0).interval, 0U);
  for (u32 n = 0; n < 100; ++n) post(1000 + n);
  EXPECT_EQ(monitor.starts(1, 0, 0, 2000).groups.size(), headend::CarouselMonitor::kStarts + 6);
}

// Counters of packets with payload; a: without payload, d: with discontinuity_indicator, e: with transport
// error, r: of the reserved kind, p: with a PCR, which differs, x: with another payload than before.
TEST(PidMeter, FindsContinuityErrors) {
  for (const auto& [sequence, errors] : std::vector<std::pair<std::string, u32>>{{"14 15 0", 0},
                                                                                 {"0 1 2 15", 1},
                                                                                 {"3 9 10", 1},
                                                                                 {"3 9d 10", 0},
                                                                                 {"3 3 4 4 5", 0},
                                                                                 {"3 3 3 4", 1},
                                                                                 {"3 3x 4", 1},
                                                                                 {"3p 3p 4", 0},
                                                                                 {"3 3a 3a 4", 0},
                                                                                 {"3 4a 5", 1},
                                                                                 {"3 9e 4", 0},
                                                                                 {"3 9r 4", 0}}) {
    for (const u64 pid : {u64{0x100}, u64{0x1FFF}}) {
      headend::PidMeter meter;
      std::istringstream words(sequence);
      u64 place = 0;
      for (std::string word; words >> word; ++place) {
        const char kind = word.back();
        const auto counter = static_cast<u64>(std::stoi(word));
        Bytes p = packet({.pid = pid, .counter = counter, .number = kind == 'x', .pcr = std::nullopt});
        if (kind == 'p') p = packet({.pid = pid, .counter = counter, .pcr = place});
        if (kind == 'a') put(p, 26, 2, 2);
        if (kind == 'r') put(p, 26, 2, 0);
        if (kind == 'e') put(p, 8, 1, 1);
        if (kind == 'a' || kind == 'd') put(p, 32, 16, kind == 'd' ? 0x0180 : 0x0100);
        if (kind == 'd') put(p, 26, 1, 1);
        meter.packet(mpeg::PacketView(p));
      }
      ASSERT_EQ(meter.counts().size(), 1U);
      EXPECT_EQ(meter.counts()[0].continuityErrors, pid == 0x100 ? errors : 0) << sequence;
      EXPECT_EQ(meter.counts()[0].packets, place) << sequence;
    }
  }
}

// Packets of two PIDs in each second: the second PID begins in the second one. A packet a second is 1504
// bit/s.
TEST(PidMeter, GivesRatesOfWholeSeconds) {
  headend::PidMeter meter;
  const auto count = [&meter](u64 packets, u64 others) {
    meter.add(0x100, packets);
    if (others > 0) meter.add(0x200, others);
    meter.second(kSecond);
  };
  const auto rates = [&meter](std::size_t index) {
    const auto all = meter.counts().at(index).rates;
    return all ? std::array{all->now, all->lowest, all->highest} : std::array{1U, 1U, 1U};
  };
  using Rates = std::array<u32, 3>;
  count(10, 0);
  EXPECT_EQ(rates(0), (Rates{15040, 15040, 15040}));
  count(30, 5);
  count(20, 7);
  EXPECT_EQ(rates(0), (Rates{30080, 15040, 45120}));
  EXPECT_EQ(rates(1), (Rates{10528, 10528, 10528}));
  meter.reset();
  EXPECT_TRUE(meter.counts().empty());
  count(40, 0);
  EXPECT_EQ(rates(0), (Rates{60160, 60160, 60160}));
}

}  // namespace
}  // namespace test
