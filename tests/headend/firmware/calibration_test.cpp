// A calibration write into the EEPROM, through power cuts.
#include <fmt/format.h>
#include <gtest/gtest.h>

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

using Registers = std::array<u8, kDacRegisters>;

// Every edge of one calibration write is a point at which the power may go; each is a history of its own,
// forked from here. A short slice of them without QAM_LONG.
TEST(Calibration, APowerCutLeavesEveryByteOldOrNewButTheOneInItsCycle) {
  const std::uint64_t step = std::getenv("QAM_LONG") != nullptr ? 1 : 41;
  std::mt19937 random(11);
  Registers before{}, after{};
  for (Registers* each : {&before, &after})
    std::ranges::generate(*each, [&] { return static_cast<u8>(random()); });
  const auto write = [](const Registers& registers) {
    Bytes packet = {2, 0};
    packet.insert(packet.end(), registers.begin(), registers.end());
    EXPECT_EQ(AdPackHandle(0, packet.data(), static_cast<int>(packet.size()), nullptr, nullptr), 0);
  };
  Driven bench;
  std::uint64_t points = 0;
  int undefined = 0;
  bench.drive([&] {
    write(before);
    const std::uint64_t first = bench.board().calibrationEdges() + 1;
    points = std::stoull(inChild([&] {
      write(after);
      return std::to_string(bench.board().calibrationEdges() - first + 1);
    }));
    for (std::uint64_t point = 1; point <= points; point += step) {
      const std::string found = inChild([&] {
        Registers left{};
        bool inCycle = false;
        bench.board().atEdge(first + point - 1, [&] {
          inCycle = bench.board().eeprom.busy(bench.now());
          bench.board().cutPower(bench.now());
          std::copy_n(bench.board().eeprom.image(bench.now()).begin(), left.size(), left.begin());
        });
        write(after);
        std::size_t cut = 0;  // bytes from here on are old, except one that may have any value
        while (cut < left.size() && left[cut] == after[cut]) ++cut;
        const bool isOld = cut == left.size() || left[cut] == before[cut];
        for (std::size_t n = cut + 1; n < left.size(); ++n)
          if (left[n] != before[n]) return fmt::format("byte {} is {:02X}", n, left[n]);
        const headend::Eeprom::Image& image = bench.board().eeprom.image(bench.now());
        if (std::any_of(image.begin() + kDacRegisters, image.end(), [](u8 value) { return value != 0xFF; })) {
          return std::string("a byte beyond the calibration has changed");
        }
        if (!isOld && !inCycle) return fmt::format("byte {} is garbage, and was not being written", cut);
        return std::string(isOld ? "" : "undefined");
      });
      undefined += found == "undefined" ? 1 : 0;
      EXPECT_TRUE(found.empty() || found == "undefined") << "cut at edge " << point << ": " << found;
    }
  });
  EXPECT_GT(points, 2000U);
  EXPECT_GT(undefined, 0) << "no cut has met a write cycle";
}

}  // namespace
}  // namespace test
