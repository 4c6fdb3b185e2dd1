#include "headend/hardware/bus.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <memory>

#include "tests/headend/hardware/loaded_card.h"
#include "tests/headend/scratch.h"

namespace test {
namespace {

constexpr std::array<u32, 6> kWindows = {0x60000000, 0x60000200, 0x60000400,
                                         0x60000800, 0x60001000, 0x60002000};

struct Chassis {
  headend::Violations violations;
  headend::Bus bus{violations};
  std::array<std::unique_ptr<Card>, 6> cards;

  Chassis() {
    for (int slot = 0; slot < 6; ++slot) {
      auto& card = cards[static_cast<std::size_t>(slot)];
      card = std::make_unique<Card>();
      bus.attach(slot, card->fpga, card->port);
    }
  }
  void* window(std::size_t slot, u32 offset) { return at(bus.hostAddress(kWindows[slot]), offset); }
  void* port(std::size_t slot, u32 offset) {
    return at(bus.mainBoard(), static_cast<u32>(0x300 + 16 * slot + offset));
  }
  static void* at(void* base, u32 offset) { return static_cast<char*>(base) + offset; }
  std::uint64_t lost() const {
    return violations.counts().empty() ? 0 : violations.counts().at("bus_access_without_device");
  }
};

TEST(Bus, EachSlotHasItsWindowAndItsPort) {
  Chassis c;
  for (std::size_t slot = 0; slot < 6; ++slot) c.cards[slot]->load();
  for (std::size_t slot = 0; slot < 6; ++slot) {
    c.bus.write(c.window(slot, 200), static_cast<u16>(0x100 + slot), 0);
    c.bus.write(c.window(slot, 276), static_cast<u16>(0x200 + slot), 0);
    EXPECT_NE(c.bus.read(c.port(slot, 8), 0), 0);
  }
  for (std::size_t slot = 0; slot < 6; ++slot) {
    EXPECT_EQ(c.cards[slot]->read(200), 0x100 + slot);
    EXPECT_EQ(c.cards[slot]->read(276), 0x200 + slot);
    EXPECT_EQ(c.bus.read(c.window(slot, 200), 0), 0x100 + slot);
    c.bus.write(c.port(slot, 10), 0xC0DE, 0);
    c.bus.write(c.port(slot, 0), 0x3C5A, 0);
    for (std::size_t other = 0; other < 6; ++other) EXPECT_EQ(c.cards[other]->done(), other > slot);
    EXPECT_EQ(c.bus.accesses(static_cast<int>(slot)), 6U);
  }
  EXPECT_EQ(c.lost(), 0U);
}

TEST(Bus, AnAccessThatNobodyAnswersReadsOnesAndIsCounted) {
  Chassis c;
  for (auto& card : c.cards) card->load();
  headend::Violations violations;
  headend::Bus sparse(violations);  // a card in slot 2 only
  sparse.attach(1, c.cards[1]->fpga, c.cards[1]->port);
  std::uint64_t lost = 0;
  const auto nobody = [&](headend::Bus& bus, void* reg) {
    EXPECT_EQ(bus.peek(reg, 0), 0xFFFF);
    EXPECT_EQ(bus.read(reg, 0), 0xFFFF);
    bus.write(reg, 1, 0);
  };
  int local = 0;
  for (void* reg : {c.window(0, 278), c.window(5, 278), Chassis::at(c.bus.hostAddress(0x60000600), 0),
                    c.port(0, 0xFFFFFFFE), c.port(6, 0), c.bus.mainBoard(), static_cast<void*>(&local)}) {
    nobody(c.bus, reg);
    EXPECT_EQ(c.lost(), lost += 2);
  }
  nobody(sparse, sparse.hostAddress(0x60000000));
  nobody(sparse, Chassis::at(sparse.mainBoard(), 0x300));
  EXPECT_EQ(sparse.read(sparse.hostAddress(0x60000200), 0), 0);
  EXPECT_EQ(violations.counts().at("bus_access_without_device"), 4U);
  for (const u32 address : {0U, 0x5FFFFFFEU, 0x60002200U, 0xFFFFFFFFU}) {
    EXPECT_EQ(c.bus.hostAddress(address), nullptr);
  }
}

}  // namespace
}  // namespace test
