// A channel's tables, loaded into a card and read back, also where the load breaks off.
#include "client/psi_upload.h"

#include <gtest/gtest.h>

#include "card/QamCardPara.h"
#include "client/channel_variables.h"
#include "tests/client/card_link.h"
#include "tests/client/messages.h"
#include "tests/client/streams.h"

namespace client {
namespace {

using test::expectSays;
using test::FakeLink;
using test::has;
using test::intervalsOn;
using test::messageOf;
using test::sectionsOn;
using Sections = std::vector<Section>;

constexpr Channel kChannel = {0, 1};

Sections sectionsOf(const char* name) {
  return readCapture(std::filesystem::path(test::sample(name))).sections;
}

// Whether a restart would find what the card has now.
bool isSaved(test::Headend& headend) {
  const auto* record = reinterpret_cast<const u8*>(GetQamCardParaFromList(0));
  return test::readFile(headend.options().flash / "para" / "card1.dat") ==
         Bytes(record, record + sizeof(QamCardPara));
}

using PsiUpload = test::CardTest;

TEST_F(PsiUpload, ReplacesTheTablesUnderOneLock) {
  chassis_.drive([&] {
    for (const char* name : {"psi-small.ts", "psi-many.ts", "psi-full.ts"}) {
      SCOPED_TRACE(name);
      link_.log.clear();
      std::size_t progress = 0;
      const UploadPlan plan = planUpload(sectionsOf(name));
      upload(link_, kChannel, plan, {{TableType::kCat, 65535}, {TableType::kPat, 40}, {TableType::kBat, 0}},
             {.force = false, .progress = [&](std::size_t sent, std::size_t) { progress = sent; }});
      EXPECT_EQ(std::ranges::count(link_.log, kVarPsiLock, &Request::variable), 3);  // read, lock, unlock
      EXPECT_EQ(progress, plan.packets);
      EXPECT_EQ(sectionsOn(link_, kChannel), sectionsOf(name));
      EXPECT_EQ(intervalsOn(link_, kChannel), (std::vector<u32>{40, 300, 300, 300, 300, 300, 0, 65535}));
      EXPECT_TRUE(isSaved(chassis_.headend()));
      EXPECT_TRUE(sectionsOn(link_, {0, 0}).empty());
    }
    expectSays(messageOf([&] { upload(link_, kChannel, {}, {{TableType::kPat, 65536}}); }), "65536 ticks");
  });
}

// Between the reading of the lock and its setting another client may come in.
TEST_F(PsiUpload, PutsNoMixtureOfTwoClientsOnTheAir) {
  chassis_.drive([&] {
    link_.before = [&](int call, const Request& request) {
      if (call == 3) FakeLink(chassis_.headend()).call(request);
    };
    expectSays(messageOf([&] { upload(link_, kChannel, planUpload(sectionsOf("psi-small.ts")), {}); }),
               "another client is loading the same channel");
    EXPECT_TRUE(ChannelVariables(link_, kChannel).locked());
  });
}

TEST_F(PsiUpload, TouchesALockedChannelOnlyByForce) {
  chassis_.drive([&] {
    ChannelVariables card(link_, kChannel);
    const Sections small = sectionsOf("psi-small.ts");
    const UploadPlan plan = planUpload(small);
    const std::pair<std::function<void(bool force)>, Sections> changes[] = {
        {[&](bool force) { upload(link_, kChannel, plan, {}, {.force = force, .progress = {}}); }, small},
        {[&](bool force) { clear(link_, kChannel, force); }, {}}};
    for (const auto& [change, after] : changes) {
      card.setLock(true);  // of a client that went away in the middle
      card.writeChunk(plan.chunks.front());
      const Sections before = sectionsOn(link_, kChannel);
      expectSays(messageOf([&, &run = change] { run(false); }), "psi clear 1.2 --force");
      EXPECT_TRUE(card.locked());
      EXPECT_EQ(sectionsOn(link_, kChannel), before);
      change(true);
      EXPECT_FALSE(card.locked());
      EXPECT_EQ(sectionsOn(link_, kChannel), after);
    }
  });
}

// The message tells whether the channel is silent, and a forced load always helps.
TEST_F(PsiUpload, SaysHowToGoOnWhereverItBreaksOff) {
  const Sections wanted = sectionsOf("psi-small.ts");
  const UploadPlan plan = planUpload(wanted);
  chassis_.drive([&] {
    const auto ends = test::breakOffEverywhere(
        chassis_.headend(), [&](FakeLink& link, const std::string& where) -> std::string {
          const std::string message = messageOf([&] {
            upload(link, kChannel, plan, {{TableType::kCat, 100}});
          });
          SCOPED_TRACE(where + ": " + message);
          const Request& last = link.log.back();
          const bool switches = last.operation == Operation::kWrite && last.variable == kVarPsiLock;
          const bool locked = ChannelVariables(link_, kChannel).locked();
          const bool unchanged = sectionsOn(link_, kChannel).empty();
          if (message.empty()) {
            EXPECT_EQ(sectionsOn(link_, kChannel), wanted);
            EXPECT_FALSE(locked);
            return "done";
          }
          const bool known = has(message, "is locked and sends no PSI");
          const bool unknown = has(message, "may be locked");
          EXPECT_TRUE(known ? locked : unknown ? switches : unchanged && !locked);
          EXPECT_EQ(has(message, "'qamctl psi load 1.2 FILE --force'"), known || unknown);
          upload(link_, kChannel, plan, {}, {.force = true, .progress = {}});
          EXPECT_EQ(sectionsOn(link_, kChannel), wanted);
          EXPECT_TRUE(isSaved(chassis_.headend()));
          return known ? "silent" : unknown ? "unknown" : "untouched";
        });
    for (const char* end : {"done", "silent", "unknown", "untouched"}) EXPECT_TRUE(ends.contains(end)) << end;
  });
}

TEST_F(PsiUpload, SavesTheIntervalsThatItSets) {
  const std::vector<u32> usual(kTableCount, 300);
  struct Row {
    const char* name;
    Channel channel;
    Intervals intervals;
    std::vector<u32> first, second;  // of the two channels
  };
  const Row rows[] = {
      {"channel 1", {0, 0}, {{TableType::kPat, 7}}, {7, 300, 300, 300, 300, 300, 300, 300}, usual},
      {"channel 1, CAT", {0, 0}, {{TableType::kCat, 9}}, {7, 300, 300, 300, 300, 300, 300, 9}, usual},
      {"channel 2",
       kChannel,
       {{TableType::kBat, 7}, {TableType::kPmt, 0}},
       {7, 300, 300, 300, 300, 300, 300, 9},
       {300, 0, 300, 300, 300, 300, 7, 300}},
      {"channel 2, CAT",
       kChannel,
       {{TableType::kCat, 65535}, {TableType::kBat, 8}},
       {7, 300, 300, 300, 300, 300, 300, 9},
       {300, 0, 300, 300, 300, 300, 8, 65535}},
  };
  chassis_.drive([&] {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.name);
      const std::uint64_t saves = chassis_.headend().chassis().slot(0).saves;
      setIntervals(link_, row.channel, row.intervals);
      EXPECT_EQ(intervalsOn(link_, {0, 0}), row.first);
      EXPECT_EQ(intervalsOn(link_, kChannel), row.second);
      EXPECT_EQ(chassis_.headend().chassis().slot(0).saves, saves + 1);
      EXPECT_TRUE(isSaved(chassis_.headend()));
    }
  });
}

// Positions 0 to 261 can be asked for; and maps only where the PAT tells their PID.
TEST_F(PsiUpload, ReadBackCountsWhatIsOutOfReach) {
  struct Row {
    u8 tableId;
    u16 stored, read;
  };
  chassis_.drive([&] {
    for (const Row& row : {Row{0x42, 0, 0}, Row{0x42, 7, 7}, Row{0x42, 8, 8}, Row{0x46, 256, 256},
                           Row{0x46, 262, 262}, Row{0x46, 263, 262}, Row{0x46, 512, 262}, Row{2, 4, 0}}) {
      SCOPED_TRACE(row.stored);
      Sections sections;
      for (u16 i = 0; i < row.stored; ++i)
        sections.push_back(test::makeSection({.tableId = row.tableId, .extension = i}, 100));
      upload(link_, kChannel, planUpload(sections), {});
      const ReadBack tables = readBack(link_, kChannel);
      EXPECT_EQ(tables.read(), row.read);
      EXPECT_EQ(tables.outOfReach(), row.stored - row.read);
      sections.resize(row.read);
      EXPECT_EQ(sectionsOn(link_, kChannel), sections);
    }
  });
}

}  // namespace
}  // namespace client
