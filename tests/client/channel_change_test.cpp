// Each request of each change of a channel goes wrong in every way: the channel then has the old content or
// the new one, or the message says truthfully what is known and which commands mend it.
#include <gtest/gtest.h>

#include <map>

#include "client/channel_variables.h"
#include "client/chassis_services.h"
#include "client/pid_map_file.h"
#include "client/programme.h"
#include "client/psi_capture.h"
#include "tests/client/card_link.h"
#include "tests/client/streams.h"

namespace client {
namespace {

using test::has;
using test::mapOf;
using test::messageOf;
namespace fs = std::filesystem;
using Entries = std::vector<MapEntry>;
using Kind = test::Fault::Kind;

// What a client sees of the channel.
struct State {
  PsiStore psi;
  PidMap map;
  std::vector<chassis::RouterWords> router;

  bool sameMap(const State& s) const { return map == s.map && router == s.router; }
};

struct Procedure {
  const char* name;
  bool map;
  bool psi;
  bool leftLocked;  // by another client
  std::function<ChannelChange(Link&, const ChangeOptions&)> plan;
};

class ChannelChangeTest : public test::CardTest {
 protected:
  State state() { return {tables(), readMap(link_, kChannel), routerMap(link_, kChannel)}; }

  // Another client begins to load the same parts, or sets an interval.
  void interfere(const Procedure& procedure) {
    test::FakeLink link(chassis_.headend());
    ChannelVariables card(link, kChannel);
    if (procedure.map) {
      if (!procedure.leftLocked) card.lockMap(true);
      card.writeMap(mapOf(3, 0x700));
    }
    if (procedure.psi) {
      card.lockTables(true);
      card.writeTable(packTables({test::makeSection({.pid = 1, .tableId = 1}, 20)}).front());
    }
    if (!procedure.map && !procedure.psi) card.writeInterval(PAT, 11);
  }

  std::string judgePsi(const Procedure& procedure, const std::string& message, const State& now) {
    const bool is = has(message, "Channel 1.2 is locked and sends no PSI");
    const bool may = has(message, "Channel 1.2 may be locked and sends no PSI");
    EXPECT_TRUE(is ? now.psi.locked : may || !now.psi.locked);
    EXPECT_TRUE(!(is || may) || has(message, "'qamctl psi clear 1.2 --force'"));
    if (procedure.leftLocked || !procedure.psi) return "told";
    EXPECT_TRUE(has(message, options_.tablesFile.string()));
    load(readCapture(options_.tablesFile).sections, {}, kChannel, true);
    EXPECT_EQ(test::sectionsIn(tables()), test::sectionsIn(old_.psi));
    return "told";
  }

  std::string judgeMap(const Procedure& procedure, const std::string& message, const State& now) {
    EXPECT_TRUE(has(message, "1.2 may be locked; on") || now.map.locked == has(message, "1.2 is locked; on"));
    EXPECT_TRUE(!has(message, "on the air") || now.router == old_.router || now.router == wanted_.router);
    EXPECT_TRUE(has(message, "'qamctl pidmap show 1.2'"));
    if (procedure.leftLocked) return "told";
    EXPECT_TRUE(has(message, options_.mapFile.string()));
    const Entries rescued = readMapFile(options_.mapFile).entries;
    if (now.map.locked) {
      carryOut(link_, planRelease(link_, kChannel, ReleaseBy::kMap, rescued, options_));
      EXPECT_TRUE(state().sameMap(old_));
    }
    return "told";
  }

  std::string judge(const Procedure& procedure, const test::FakeLink& link, const test::Fault& fault,
                    const std::string& message) {
    SCOPED_TRACE(message);
    const State now = state();
    if (message.empty()) {
      if (now.sameMap(wanted_) && now.psi == wanted_.psi) return "new";
      // Nothing reads the channel again after the last request.
      EXPECT_TRUE(fault.kind == Kind::kSecondClient && link.brokeLast());
      return "unseen";
    }
    std::string end = "old";
    const std::string psi = procedure.psi ? "The old PSI of" : "The old intervals of";
    const std::string map = "The old PID map of";
    const std::string lost = " channel 1.2 could not be put back";
    const bool theirs = fault.kind == Kind::kSecondClient;  // they may have changed what was not touched
    if (has(message, psi + lost))
      end = judgePsi(procedure, message, now);
    else
      EXPECT_TRUE(now.psi == old_.psi || (theirs && !has(message, psi)));
    if (has(message, map + lost))
      end = judgeMap(procedure, message, now);
    else
      EXPECT_TRUE(now.sameMap(old_) || (theirs && !has(message, map)));
    if (!has(message, "The old ") && fault.kind == Kind::kSecondClient) end = "refused";
    if (end == "old") {
      EXPECT_FALSE(fs::exists(options_.tablesFile) || fs::exists(options_.mapFile));
    }
    return end;
  }

  // The tables on the air name only routed PIDs.
  void expectNoReferenceToNothing(const Request& last) {
    if (last.operation != Operation::kWrite || (last.variable != kPsiLock && last.variable != kPidMapLock))
      return;
    const State now = state();
    if (now.psi.locked || now.psi.tables[PMT].interval_ticks == 0) return;
    const PidMap routed = {.entries = entriesOf(now.router)};
    for (const Programme& p : programmesOf({.channel = kChannel, .psi = now.psi, .map = routed})) {
      for (const ProgrammePid& pid : p.pids) EXPECT_TRUE(pid.source) << pid.pid;
    }
  }

  // The numbers of ends for one fault at each request.
  std::string breakEverywhere(const Procedure& procedure, const test::Fault& fault) {
    std::map<std::string, int> ends;
    bool whole = false;
    for (int at = 0; !whole && !HasFailure(); ++at) {
      for (const auto& left : fs::directory_iterator(scratch_.path)) fs::remove_all(left);
      const std::string end = test::inChild([&]() -> std::string {
        SCOPED_TRACE(fmt::format("{}: request {}: {}", procedure.name, at, fault.name));
        test::FakeLink link(chassis_.headend(), fault, at);
        link.secondClient = [&] { interfere(procedure); };
        if (procedure.map && procedure.psi && fault.kind != Kind::kSecondClient)
          link.after = [&](const Reply&) { expectNoReferenceToNothing(link.log.back()); };
        const std::string message = messageOf([&] { carryOut(link, procedure.plan(link, options_)); });
        return link.reached() ? judge(procedure, link, fault, message) : "whole";
      });
      whole = end == "whole";
      if (!whole) ++ends[end];
      EXPECT_FALSE(has(end, "failed") || has(end, "died"))
          << procedure.name << ' ' << fault.name << ' ' << at << ": " << end;
    }
    std::string text;
    for (const auto& [end, count] : ends) text += fmt::format(" {} {},", count, end);
    return text;
  }

  // Two programmes of input 6.1, and with `leftLocked` the locks that another client has left.
  void prepare(bool leftLocked) {
    ChannelVariables card(link_, kChannel);
    card.lockMap(false);
    card.lockTables(false);
    if (base_.router.empty()) {
      load({}, {{PAT, 77}, {CAT, 0}});
      for (const char* number : {"1", "2"})
        carryOut(link_, planAddProgramme(link_, kChannel, {5, 0}, number).change);
      base_ = state();
    }
    Intervals intervals;
    for (const PsiType type : kAllTables) intervals[type] = base_.psi.tables[type].interval_ticks;
    carryOut(link_, planLoad(link_, kChannel, base_.psi.readable(), intervals));
    loadMap(base_.map.entries);
    if (!leftLocked) return;
    card.lockMap(true);
    card.writeMap(mapOf(2, 0x500));
    card.lockTables(true);
  }

  void breakAll(const Procedure& procedure) {
    prepare(procedure.leftLocked);
    link_.log.clear();
    carryOut(link_, procedure.plan(link_, options_));
    fmt::print("{}: {} requests\n", procedure.name, link_.log.size());
    wanted_ = state();
    prepare(procedure.leftLocked);
    old_ = state();
    for (const test::Fault& fault : test::kFaults)
      fmt::print("  {:<32}{}\n", fault.name, breakEverywhere(procedure, fault));
  }

  ChangeOptions options_{.mapFile = scratch_.path / "map.csv", .tablesFile = scratch_.path / "psi.ts"};
  State base_{};
  State old_{};
  State wanted_{};
};

TEST_F(ChannelChangeTest, EndsOldOrNewOrSaysWhatIsKnown) {
  const Tables small = packTables(readCapture(fs::path(test::sample("psi-small.ts"))).sections);
  const Intervals two = {{PAT, 70}, {CAT, 80}};
  const auto forced = [&](auto& link) { return planLoad(link, kChannel, small, {}, {.force = true}); };
  const Procedure procedures[] = {
      // name, changes the map, changes the tables, begins with locks of another client
      {"psi load", false, true, false,
       [&](auto& l, auto& o) { return planLoad(l, kChannel, small, two, o); }},
      {"psi load --force", false, true, true, [&](auto& l, auto&) { return forced(l); }},
      {"psi clear", false, true, false, [](auto& l, auto& o) { return planClear(l, kChannel, o); }},
      {"psi interval", false, false, false, [&](auto& l, auto&) { return planIntervals(l, kChannel, two); }},
      {"pidmap load", true, false, false,
       [](auto& l, auto& o) { return planMap(l, kChannel, mapOf(178, 0x900), o); }},
      {"pidmap clear", true, false, false, [](auto& l, auto& o) { return planMap(l, kChannel, {}, o); }},
      {"pidmap release", true, false, true,
       [](auto& l, auto& o) { return planRelease(l, kChannel, ReleaseBy::kMap, mapOf(90, 0x600), o); }},
      {"programme add", true, true, false,
       [](auto& l, auto& o) {
         return planAddProgramme(l, kChannel, {5, 0}, "3", {}, o).change;
       }},
      {"programme remove", true, true, false,
       [](auto& l, auto& o) { return planRemoveProgramme(l, kChannel, "1", o).change; }},
  };
  chassis_.drive([&] {
    for (const Procedure& procedure : procedures) breakAll(procedure);
  });
}

// Another client has loaded the channel after the plan.
TEST_F(ChannelChangeTest, IsRefusedOnceTheChannelHasChanged) {
  chassis_.drive([&] {
    const ChannelChange changes[] = {planClear(link_, kChannel), planMap(link_, kChannel, {})};
    load({test::makePat({{1, 0x100}})});
    loadMap(mapOf(2, 0x100));
    const State theirs = state();
    for (const ChannelChange& change : changes)
      test::expectSays(messageOf([&] { carryOut(link_, change); }), "another client is loading it");
    EXPECT_TRUE(state().psi == theirs.psi && state().sameMap(theirs));
  });
}

TEST_F(ChannelChangeTest, IsDescribed) {
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
