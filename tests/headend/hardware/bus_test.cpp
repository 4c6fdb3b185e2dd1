#include "headend/hardware/bus.h"

#include <gtest/gtest.h>

#include <array>

#include "tests/headend/hardware/loaded_card.h"

namespace test {
namespace {

TEST(Bus, EachSlotHasItsWindowAndItsPortAndNobodyElseAnswers) {
  constexpr u32 kWindows[] = {0x60000000, 0x60000200, 0x60000400, 0x60000800, 0x60001000, 0x60002000};
  std::array<Card, 6> cards;
  headend::Violations violations;
  headend::Bus bus(violations);
  const auto window = [&](u32 address) { return static_cast<char*>(bus.hostAddress(address)); };
  const auto board = [&](u32 offset) { return static_cast<char*>(bus.mainBoard()) + offset; };
  for (const u32 slot : {0U, 2U, 3U, 4U, 5U}) {
    Card& card = cards[slot];
    card.load();
    bus.attach(static_cast<int>(slot), card.fpga, card.port);
    char* first = window(kWindows[slot]);
    for (const u32 offset : {200U, 276U}) bus.write(first + offset, static_cast<u16>(offset + slot), 0);
    EXPECT_EQ(bus.read(first + 200, 0), 200 + slot);
    EXPECT_EQ(card.read(276), 276 + slot);
    EXPECT_EQ(bus.peek(board(0x300 + 16 * slot + kDone), 0), 1);
    bus.write(board(0x300 + 16 * slot + kGuard), kOpen, 0);
    bus.write(board(0x300 + 16 * slot + kRequest), kStart, 0);
    EXPECT_FALSE(card.done());
    EXPECT_EQ(bus.accesses(static_cast<int>(slot)), 5U);
  }
  EXPECT_TRUE(violations.counts().empty());

  int local = 0;
  u64 lost = 0;
  for (void* reg : {window(kWindows[0] + 278), window(kWindows[5] + 278), window(0x60000600),
                    window(kWindows[1]), board(0x300 + 16), board(0x300 - 2), board(0x300 + 16 * 6), board(0),
                    reinterpret_cast<char*>(&local)}) {
    EXPECT_EQ(bus.peek(reg, 0), 0xFFFF);
    EXPECT_EQ(bus.read(reg, 0), 0xFFFF);
    bus.write(reg, 1, 0);
    EXPECT_EQ(violations.counts().at("bus_access_without_device"), lost += 2);
  }
  for (const u32 address : {0U, 0x5FFFFFFEU, 0x60002200U, 0xFFFFFFFFU})
    EXPECT_EQ(bus.hostAddress(address), nullptr);
}

}  // namespace
}  // namespace test
