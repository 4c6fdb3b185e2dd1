#include "headend/hardware/eeprom.h"

#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <utility>

#include "tests/headend/hardware/drivers.h"

namespace test {
namespace {

constexpr Nanos kCycle = 5'000'000;

struct Memory {
  Violations violations;
  headend::Eeprom part;
  I2cLines master{part};
  headend::Eeprom::Image old{};

  explicit Memory(unsigned seed = 1) : part(violations, seed) {
    for (unsigned i = 0; i < old.size(); ++i) old[i] = static_cast<u8>(i * 7 + i / 256 * 31);
    part.load(old);
  }
  bool write(unsigned place, Bytes data, bool andStop = true) {
    data.insert(data.begin(), static_cast<u8>(place));
    return master.sendAll(static_cast<int>(0x50 | place >> 8), data, andStop);
  }
  u8 readOn(unsigned block) { return master.fetch(static_cast<int>(0x50 | block), 1)[0]; }
  Nanos stopped() const { return master.now - master.busFree; }
};

TEST(Eeprom, ReadsRunOnThroughAllBlocks) {
  Memory memory;
  const Bytes read = memory.master.fetch(0x50, 2050, 0xFE);
  for (unsigned i = 0; i < read.size(); ++i) ASSERT_EQ(read[i], memory.old[(0xFE + i) % 2048]) << i;
  EXPECT_EQ(memory.readOn(1), memory.old[0x100]);
  EXPECT_FALSE(memory.master.send(0x48));
  EXPECT_EQ(kinds(memory.violations), "");
  EXPECT_EQ(memory.readOn(6), memory.old[0x601]);
  EXPECT_EQ(kinds(memory.violations), "eeprom_read_in_another_block");
  Memory fresh;
  fresh.readOn(1), fresh.readOn(2);
  EXPECT_EQ(kinds(fresh.violations), "eeprom_read_in_another_block");
}

TEST(Eeprom, WritesAPageWhenAStopConfirmsItAndAnswersNobodyMeanwhile) {
  struct Row {
    const char* name;
    unsigned place, count, then;  // where, how many, the address counter afterwards
    Nanos cycle;
    bool stop;
    const char* kinds;
  };
  const Row rows[] = {
      {"nothing", 0x345, 0, 0x345, kCycle, true, ""},
      {"a page, at once", 0x7F0, 16, 0x7F0, 0, true, ""},
      {"over a page's end", 0x0FE, 3, 0x0F1, kCycle, true, "eeprom_page_wrapped"},
      {"more than a page, slowly", 0x730, 17, 0x731, 2 * kCycle, true, "eeprom_page_wrapped"},
      {"no stop", 0x345, 2, 0x347, 0, false, "eeprom_write_abandoned"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    Memory memory;
    auto expected = memory.old;
    const Bytes data = {5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21};
    for (unsigned i = 0; i < row.count && row.stop; ++i)
      expected[(row.place & ~15U) + (row.place + i) % 16] = data[i];
    memory.part.writeCycle(row.cycle);
    EXPECT_TRUE(memory.write(row.place, Bytes(data.begin(), data.begin() + row.count), row.stop));
    const Nanos end = memory.stopped() + row.cycle;
    EXPECT_EQ(memory.part.image(end - 1), memory.old);
    if (!row.stop) memory.master.prepareRestart(), memory.master.send(0x53);
    EXPECT_EQ(memory.master.send(0x53), row.count == 0 || row.cycle == 0);
    memory.master.now = std::max(memory.master.now, end - 15'800);  // an address takes 15.8 us
    EXPECT_EQ(memory.readOn(row.then >> 8), expected[row.then]);
    EXPECT_EQ(memory.part.image(memory.master.now + kCycle), expected);
    EXPECT_EQ(kinds(memory.violations), row.kinds);
  }
}

TEST(Eeprom, AStopInsideAByteConfirmsNothing) {
  Memory memory;
  memory.write(0x345, {1}, false);
  memory.master.bit(true);
  memory.master.stop();
  EXPECT_EQ(memory.part.image(memory.master.now + kCycle), memory.old);
  EXPECT_EQ(kinds(memory.violations), "eeprom_stop_in_byte");
}

TEST(Eeprom, APowerCutLeavesItsBytesOldNewOrGarbageAndNoOther) {
  const auto left = [](Memory&& memory, bool stop, Nanos after) {
    memory.write(0x10E, {0x11, 0x22, 0x33}, stop);
    memory.part.powerCut(memory.stopped() + after);
    return memory.part.image(memory.master.now + kCycle);
  };
  const auto old = Memory().old;
  for (const auto& [stop, after, all] : {std::tuple{false, kCycle, "old"}, std::tuple{true, kCycle, "new"},
                                         std::tuple{true, kCycle - 1, "garbage new old"}}) {
    std::array<std::set<std::string>, 3> seen;
    for (unsigned seed = 0; seed < 60; ++seed) {
      auto image = left(Memory(seed), stop, after);
      EXPECT_EQ(image, left(Memory(seed), stop, after));
      for (unsigned i = 0; i < 3; ++i) {
        const unsigned place = std::array{0x10EU, 0x10FU, 0x100U}[i];
        const u8 byte = std::exchange(image[place], old[place]);
        seen[i].insert(byte == old[place] ? "old" : byte == 0x11 * (i + 1) ? "new" : "garbage");
      }
      ASSERT_EQ(image, old);
    }
    for (const auto& of : seen) EXPECT_EQ(fmt::format("{}", fmt::join(of, " ")), all);
  }
}

}  // namespace
}  // namespace test
