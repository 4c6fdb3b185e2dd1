// What a card stores of a channel: PID maps as CSV files, their checks, maps on a card and its router;
// intervals, tables and how far these can be read back; changes that are refused or described.
#include <gtest/gtest.h>

#include <algorithm>

#include "client/channel_state.h"
#include "client/chassis_services.h"
#include "client/pid_map.h"
#include "tests/client/card_link.h"
#include "tests/client/messages.h"
#include "tests/client/streams.h"

namespace client {
namespace {

using Entries = std::vector<MapEntry>;
using test::expectSays;
using test::mapOf;
using test::messageOf;

const std::string kHeader = "src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n";

class ChannelTest : public test::CardTest {
 protected:
  bool carries(const Entries& entries) { return holds(routerMap(link_, kChannel), asKept(entries)); }
  Entries recorded() { return readMap(link_, kChannel).entries; }
  std::string load(const Entries& entries) {
    return messageOf([&] { carryOut(link_, planMap(link_, kChannel, entries, options_)); });
  }
  using CardTest::load;

  ChangeOptions options_{.mapFile = scratch_.path / "rescue.csv"};
  ChannelVariables card_{link_, kChannel};
};

// ---- PID maps

TEST_F(ChannelTest, ARouterHoldsAMapOnlyInAllBitsOfItsWords) {
  // Slot 6, input 16, PID 0x101 on PID 0x1CFF.
  std::vector<chassis::RouterWords> router(kPidMapSize, chassis::kUnusedPosition);
  router[0] = {0xE101, 0x3FEB, 7};
  const Entries entries = {{.sourceSlot = 5, .sourcePort = 15, .sourcePid = 0x101, .pid = 0x1CFF}};
  EXPECT_TRUE(holds(router, entries));
  for (unsigned bit = 0; bit < 48; ++bit) {
    auto other = router;
    other[0][bit / 16] ^= static_cast<u16>(1U << bit % 16);
    EXPECT_FALSE(holds(other, entries)) << bit;
  }
}

// Entries that another client announced and never wrote go neither back to the card nor on the air.
TEST_F(ChannelTest, LeavesOutMapEntriesThatNeverCameAndChangesNothingForARefusedMap) {
  const Entries came = mapOf(2, 0x100);
  Entries refused = mapOf(100, 0x900);
  refused.back() = {4, 2, 2, 0, 2};  // in the second chunk
  chassis_.drive([&] {
    for (const bool releases : {true, false}) {
      card_.lockMap(true);
      link_.call(makeRequest(Operation::kWrite, kPidMapChunk, kChannel.slot, kChannel.port,
                             encodeMapChunk(200, 0, came)));
      EXPECT_EQ(recorded().size(), 200u);
      if (releases) {
        carryOut(link_, planRelease(link_, kChannel, ReleaseBy::kRecord, {}, options_));
      } else {
        card_.lockMap(false);
        const std::string message = load(refused);
        expectSays(message, "input that its source card has not");
        expectSays(message, "The old PID map of channel 1.2 is in place");
      }
      EXPECT_TRUE(carries(came));
      EXPECT_EQ(recorded(), asKept(came));
    }
    expectSays(load({{3, 0, 0x100, 0, 0x200}}), "in a source slot that an entry names");
    options_.mapFile = scratch_.path / "none" / "rescue.csv";
    expectSays(load(Entries{}), "cannot be kept");
    EXPECT_TRUE(carries(came) && !card_.mapLocked());
  });
}

TEST_F(ChannelTest, ReadsMapFilesThatItWritesAndThatPeopleWrite) {
  const Entries entries = mapOf(kPidMapSize, 0x100);
  EXPECT_EQ(parseMapFile(mapFileText(entries), "f").entries, entries);
  const MapFile file = parseMapFile(
      "\xEF\xBB\xBF# by hand\r\n\r\n" + kHeader + "6,16,0x1ffe,1,512,2,255\r\n \n# x\n1, 2 ,3,4,5,6,7", "f");
  EXPECT_EQ(file.entries, (Entries{{5, 15, 0x1FFE, 1, 512, 2, 255}, {0, 1, 3, 4, 5, 6, 7}}));
  EXPECT_EQ(file.lines, (std::vector<std::size_t>{4, 7}));
}

TEST_F(ChannelTest, SaysWhichLineOfAMapFileIsWrongAndWhy) {
  const std::string tooMany =
      "\n" + mapFileText(mapOf(kPidMapSize, 0x100)).substr(kHeader.size()) + "6,1,0x1e01,0,0x1e01,0,0\n";
  const std::pair<std::string, const char*> rows[] = {
      // below the header
      {"1,1,1,1,1,1\n", " line 2: 6 fields"},
      {"\n1,1,x,1,1,1,1\n", " line 3: src_pid 'x' is no number"},
      {"1,1,1,1,12 3,1,1\n", " line 2: dst_pid '12 3' is no number"},
      {"0,1,1,1,1,1,1\n", " line 2: src_slot 0 is not from 1 to 6"},
      {"7,1,1,1,1,1,1\n", " line 2: src_slot 7 is not from 1 to 6"},
      {"1,0,1,1,1,1,1\n", " line 2: src_port 0 is not from 1"},
      {"1,17,1,1,2,1,1\n", " line 2: src_port 17 is above 16"},
      {"1,1,1,65536,1,1,1\n", " line 2: src_programme 65536 is not"},
      {"1,1,1,1,1,99999999999,1\n", " line 2: dst_programme 99999999999 is not"},
      {"1,1,1,1,1,1,256\n", " line 2: type 256 is not"},
      {"5,1,0x2000,1,1,1,1\n", " line 2: src_pid 0x2000 is above 0x1FFF"},
      {"5,1,1,1,0x1fff,1,1\n", " line 2: dst_pid 0x1FFF is that of null packets"},
      {"5,1,1,1,64,1,1\n#\n5,1,1,1,65,1,1\n", " line 2 and map.csv line 4 have the same source"},
      {"5,1,1,1,64,1,1\n6,1,1,1,64,1,1\n", " line 2 and map.csv line 3 bring two sources onto dst_pid"},
      {"4,1,1,1,64,1,1\n", " line 2: there is no source card in slot 4"},
      {"5,3,1,1,64,1,1\n", " line 2: the source card in slot 5 has no input 3: it has 2"},
      {tooMany, " line 259 is one too many"},
      {"5,2,0x1ffe,1,0x14,1,255\n6,16,1,1,65,1,1\n", ""},
      {"5,1,1,1,64,1,1\n6,1,1,1,17,1,1\n", "map.csv line 3: dst_pid 0x0011 is where the card"},
  };
  std::string said;
  options_.sources = InputCounts{{4, 2}, {5, 16}, {0, 16}};
  options_.note = [&](const std::string& text) { said += text; };
  for (const auto& [text, part] : rows) {
    said.clear();
    said += messageOf([&, &lines = text] {
      const MapFile file = parseMapFile(kHeader + lines, "map.csv");
      options_.nameOf = [&](std::size_t i) { return fmt::format("map.csv line {}", file.lines.at(i)); };
      checkMap(file.entries, options_);
    });
    expectSays(said, part);
  }
  expectSays(messageOf([] { parseMapFile("# only this\n", "map.csv"); }), "map.csv: there is no header");
  expectSays(messageOf([] { parseMapFile("src_slot\n", "map.csv"); }), "map.csv line 1: the header is not");
}

// ---- Tables

// The card saves when the CAT's interval of channel 2 is written, so that one comes last, set or not.
TEST_F(ChannelTest, SavesTheIntervalsThatItSets) {
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

TEST_F(ChannelTest, PlansNoTablesThatACardCannotHold) {
  const std::tuple<u8, u16, u16, const char*> rows[] = {
      {0x42, 0x11, 513, "they take 513 packets"},
      {2, 0x100, 255, ""},
      {2, 0x100, 256, "PMTs take 256"},
      {2, 0xBFF, 513, "513 packets, and a channel holds 512; the PMTs take 513"},
      {2, 0xBFF, 1, "PID 0x0bff"},
      {2, 0x3FE, 1, ""}};
  for (const auto& [tableId, pid, count, reason] : rows) {
    const Tables tables = packTables(test::onePacketSections(tableId, pid, count));
    expectSays(messageOf([&] { checkStorable(tables); }), reason);
  }
}

// ---- Changes

// Another client has loaded the channel after the plan.
TEST_F(ChannelTest, AChangeIsRefusedOnceTheChannelHasChanged) {
  chassis_.drive([&] {
    const ChannelChange changes[] = {planClear(link_, kChannel), planMap(link_, kChannel, {})};
    load({test::makePat({{1, 0x100}})});
    loadMap(mapOf(2, 0x100));
    for (const ChannelChange& change : changes)
      expectSays(messageOf([&] { carryOut(link_, change); }), "another client is loading it");
    EXPECT_EQ(packetsIn(tables().readable()), 1U);
    EXPECT_TRUE(carries(mapOf(2, 0x100)) && recorded() == asKept(mapOf(2, 0x100)));
  });
}

TEST_F(ChannelTest, AChangeIsDescribed) {
  const MapEntry stays = {4, 0, 0x100, 1, 0x200, 2, 3};
  const ChannelChange change{
      .before = {.channel = kChannel, .map = {.entries = {stays, {4, 1, 0x101, 1, 0x201, 2, 3}}}},
      .tables = packTables({test::makePat({{1, 0x100}})}),
      .map = Entries{stays, {5, 0, 0x102, 4, 0x202, 5, 6}},
      .intervals = {{PAT, 70}}};
  EXPECT_EQ(change.describe(),
            "Channel 1.2: locks PID map and tables\nPID map: 2 entries, 2 before\n"
            "  - input 5.2 PID 0x0101 to PID 0x0201, programme 1 to 2, type 3\n"
            "  + input 6.1 PID 0x0102 to PID 0x0202, programme 4 to 5, type 6\n"
            "PAT: 1 sections in 1 packets, 0 packets before\nInterval of PAT: 70 ticks, 0 before\n");
}

}  // namespace
}  // namespace client
