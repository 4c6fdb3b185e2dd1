// Intervals that a card saves, tables that it stores, and how far these can be read.
#include "client/psi_change.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/client/card_link.h"
#include "tests/client/streams.h"

namespace client {
namespace {

using test::expectSays;
using test::messageOf;
using Sections = std::vector<Section>;

class PsiChange : public test::CardTest {};

// The card saves when the CAT's interval of channel 2 is written, so that one comes last, set or not.
TEST_F(PsiChange, SavesTheIntervalsThatItSets) {
  const std::pair<Channel, Intervals> rows[] = {
      {{0, 0}, {{PAT, 7}, {CAT, 9}}}, {kChannel, {{BAT, 8}, {PMT, 0}}}, {kChannel, {{CAT, 65535}, {BAT, 7}}}};
  chassis_.drive([&] {
    for (const auto& [channel, intervals] : rows) {
      std::map<Channel, std::vector<u32>> expected;
      for (const Channel c : {Channel{0, 0}, kChannel}) expected[c] = test::intervalsIn(tables(c));
      for (const auto& [type, ticks] : intervals) expected[channel].at(type) = ticks;
      const auto saves = chassis_.headend().chassis.slot(0).saves;
      carryOut(link_, planIntervals(link_, channel, intervals));
      for (const auto& [c, ticks] : expected) EXPECT_EQ(test::intervalsIn(tables(c)), ticks);
      EXPECT_EQ(chassis_.headend().chassis.slot(0).saves, saves + 1);
    }
    expectSays(messageOf([&] { load({}, {{PAT, 65536}}); }), "65536 ticks");
  });
}

// Positions 0 to 261 can be asked for; and maps only where the PAT tells their PID.
TEST_F(PsiChange, ReadBackCountsWhatIsOutOfReach) {
  chassis_.drive([&] {
    const std::tuple<u8, u16, u16> rows[] = {
        {0x42, 8, 8}, {0x46, 262, 262}, {0x46, 263, 262}, {0x46, 512, 262}, {2, 4, 0}};
    for (const auto& [tableId, stored, read] : rows) {
      SCOPED_TRACE(stored);
      Sections sections = test::onePacketSections(tableId, 0x11, stored);
      load(sections);
      EXPECT_EQ(packetsIn(tables().readable()), read);
      EXPECT_EQ(tables().outOfReach(), stored - read);
      sections.resize(read);
      EXPECT_EQ(test::sectionsIn(tables()), sections);
    }
  });
}

TEST_F(PsiChange, PlansNothingThatACardCannotHold) {
  for (const auto& [tableId, pid, count, reason] :
       {std::tuple<u8, u16, u16, const char*>(0x42, 0x11, 513, "they take 513 packets"),
        {2, 0x100, 255, ""},
        {2, 0x100, 256, "PMTs take 256"},
        {2, 0xBFF, 513, "513 packets, and a channel holds 512; the PMTs take 513"},
        {2, 0xBFF, 1, "PID 0x0bff"},
        {2, 0x3FE, 1, ""}}) {
    const auto sections = test::onePacketSections(tableId, pid, count);
    expectSays(messageOf([&] { checkStorable(packTables(sections)); }), reason);
  }
}

}  // namespace
}  // namespace client
