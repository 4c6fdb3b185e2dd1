#include "headend/hardware/bus.h"

#include <gtest/gtest.h>

#include <array>

#include "tests/headend/hardware/loaded_card.h"

namespace test {
namespace {

constexpr std::array<u32, 6> kWindows = {0x60000000, 0x60000200, 0x60000400,
                                         0x60000800, 0x60001000, 0x60002000};
constexpr u32 kPorts = 0x300;  // on the main board, 16 bytes a slot

struct Chassis {
  std::array<Card, 6> cards;
  headend::Violations violations;
  headend::Bus bus{violations};

  Chassis(std::initializer_list<int> slots) {
    for (const int slot : slots) bus.attach(slot, card(slot).fpga, card(slot).port), card(slot).load();
  }
  Card& card(int slot) { return cards[static_cast<std::size_t>(slot)]; }
  char* window(u32 address) { return static_cast<char*>(bus.hostAddress(address)); }
  char* board(u32 offset) { return static_cast<char*>(bus.mainBoard()) + offset; }
};

TEST(Bus, EachSlotHasItsWindowAndItsPort) {
  Chassis c({0, 1, 2, 3, 4, 5});
  for (u32 slot = 0; slot < 6; ++slot) {
    for (const u32 offset : {200U, 276U}) {
      c.bus.write(c.window(kWindows[slot] + offset), static_cast<u16>(offset + slot), 0);
    }
  }
  for (u32 slot = 0; slot < 6; ++slot) {
    EXPECT_EQ(c.bus.read(c.window(kWindows[slot] + 200), 0), 200 + slot);
    EXPECT_EQ(c.cards[slot].read(276), 276 + slot);
    c.bus.write(c.board(kPorts + 16 * slot + kGuard), kOpen, 0);
    c.bus.write(c.board(kPorts + 16 * slot + kRequest), kStart, 0);
    for (u32 other = 0; other < 6; ++other) {
      EXPECT_EQ(c.bus.peek(c.board(kPorts + 16 * other + kDone), 0) != 0, other > slot);
    }
    EXPECT_EQ(c.bus.accesses(static_cast<int>(slot)), 5U);
  }
  EXPECT_TRUE(c.violations.counts().empty());
}

TEST(Bus, AnAccessThatNobodyAnswersReadsOnesAndIsCounted) {
  Chassis c({0, 2, 3, 4, 5});
  int local = 0;
  std::uint64_t lost = 0;
  for (void* reg : {c.window(kWindows[0] + 278), c.window(kWindows[5] + 278), c.window(0x60000600),
                    c.window(kWindows[1]), c.board(kPorts + 16), c.board(kPorts - 2),
                    c.board(kPorts + 16 * 6), c.board(0), reinterpret_cast<char*>(&local)}) {
    EXPECT_EQ(c.bus.peek(reg, 0), 0xFFFF);
    EXPECT_EQ(c.bus.read(reg, 0), 0xFFFF);
    c.bus.write(reg, 1, 0);
    EXPECT_EQ(c.violations.counts().at("bus_access_without_device"), lost += 2);
  }
  for (const u32 address : {0U, 0x5FFFFFFEU, 0x60002200U, 0xFFFFFFFFU})
    EXPECT_EQ(c.bus.hostAddress(address), nullptr);
}

}  // namespace
}  // namespace test
