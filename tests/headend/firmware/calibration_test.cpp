// A calibration write into the EEPROM, through power cuts; a flood of writes.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>

#include "card/QamFpga.h"
#include "hw/Qam_set.h"
#include "hw/ad9775.h"
#include "hw/ad9775_ctrl.h"
#include "tests/headend/headend_run.h"

namespace test {
namespace {

using Image = headend::Eeprom::Image;

// Every edge of one calibration write is a point at which the power may go; each is a history of its own,
// forked from here. A short slice of them without QAM_LONG.
TEST(Calibration, APowerCutLeavesEveryByteOldOrNewButTheOneInItsCycle) {
  const std::uint64_t step = std::getenv("QAM_LONG") != nullptr ? 1 : 41;
  std::mt19937 random(11);
  Image before, after;
  for (Image* each : {&before, &after}) {
    each->fill(0xFF);
    std::generate_n(each->begin(), kDacRegisters, [&] { return static_cast<u8>(random()); });
  }
  const auto write = [](const Image& image) {
    Bytes packet = Bytes{2, 0} + Bytes(image.begin(), image.begin() + kDacRegisters);
    EXPECT_EQ(AdPackHandle(0, packet.data(), static_cast<int>(packet.size()), nullptr, nullptr), 0);
  };
  Driven bench;
  headend::CardBoard& board = bench.board();
  std::uint64_t points = 0;
  int undefined = 0;
  bench.drive([&] {
    write(before);
    const std::uint64_t done = board.calibrationEdges();
    points = std::stoull(inChild([&] {
      write(after);
      return std::to_string(board.calibrationEdges() - done);
    }));
    for (std::uint64_t point = 1; point <= points; point += step) {
      const std::string found = inChild([&]() -> std::string {
        Image left{};
        bool inCycle = false;
        board.atEdge(done + point, [&] {
          inCycle = board.eeprom.busy(bench.now());
          board.cutPower(bench.now());
          left = board.eeprom.image(bench.now());
        });
        write(after);
        // New bytes, then one that may have any value if it was in its cycle, then old ones.
        const auto [cut, mine] = std::ranges::mismatch(left, after);
        const auto* old = before.begin() + (cut - left.begin());
        if (std::equal(cut, left.end(), old)) return "";
        if (!std::equal(cut + 1, left.end(), old + 1)) return "several bytes have changed";
        return inCycle ? "undefined" : "a byte is garbage, and was not being written";
      });
      undefined += found == "undefined" ? 1 : 0;
      EXPECT_TRUE(found.empty() || found == "undefined") << "cut at edge " << point << ": " << found;
    }
  });
  EXPECT_GT(points, 2000U);
  EXPECT_GT(undefined, 0) << "no cut has met a write cycle";
}

TEST(Calibration, AFloodOfRequestsDelaysAnAnswerForNotMuchLongerThanTheirAge) {
  Driven bench([](headend::Options& options) {
    options.calibration = {.host = "127.0.0.1", .port = 0};
    options.eepromCycles[0] = kSecond / 10;  // a write takes more than a second
  });
  bench.drive([&] {
    const headend::Endpoint service{.address = 0, .port = client::kDefaultCalibrationPort};
    headend::UdpSocket flood(bench.headend().network, 50000), technician(bench.headend().network, 50001);
    for (int i = 0; i < 60; ++i) flood.send(service, Bytes{2, 0} + Bytes(kDacRegisters));
    bench.headend().kernel.sleepUntil(bench.now() + 5 * kSecond);
    const Nanos asked = bench.now();
    technician.send(service, Bytes{1, 0} + Bytes(kDacRegisters));
    EXPECT_TRUE(technician.receive(os::WAIT_FOREVER));
    EXPECT_LT(bench.now() - asked, 8 * kSecond);
    EXPECT_GT(bench.headend().sockets.dropped(), 20U);
  });
}

}  // namespace
}  // namespace test
