// Each request of each change of a channel goes wrong in every way: the channel then has the old content or
// the new one, or the message says truthfully what is known and which commands mend it.
#include <gtest/gtest.h>

#include <cstdlib>

#include "client/channel_backup.h"
#include "client/channel_state.h"
#include "client/chassis_services.h"
#include "client/pid_map.h"
#include "client/programme.h"
#include "client/psi_capture.h"
#include "tests/client/card_link.h"
#include "tests/client/messages.h"
#include "tests/client/streams.h"

namespace client {
namespace {

using test::has;
using test::mapOf;
using test::messageOf;
namespace fs = std::filesystem;
using Entries = std::vector<MapEntry>;

// What a client sees of the channel.
struct State {
  PsiStore psi;
  PidMap map;
  std::vector<chassis::RouterWords> router;

  bool sameMap(const State& s) const { return map == s.map && router == s.router; }
};

struct Procedure {
  const char* name;
  std::size_t requests;
  std::function<ChannelChange(Link&, const ChangeOptions&)> plan;
  bool leftLocked = false;        // by another client
  bool map = false, psi = false;  // whether it changes them
};

class ChannelChangeTest : public test::CardTest {
 protected:
  State state() { return {tables(), readMap(link_, kChannel), routerMap(link_, kChannel)}; }

  // Another client begins to load the same parts, or sets an interval.
  void interfere(const Procedure& procedure) {
    test::FakeLink link(chassis_.headend());
    const ChannelVariables card(link, kChannel);
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

  void judgePsi(const Procedure& procedure, const std::string& message, const State& now) {
    const bool is = has(message, "Channel 1.2 is locked and sends no PSI");
    const bool may = has(message, "Channel 1.2 may be locked and sends no PSI");
    EXPECT_TRUE(is ? now.psi.locked : may || !now.psi.locked);
    EXPECT_TRUE(!(is || may) || has(message, "'qamctl psi clear 1.2 --force'"));
    if (procedure.leftLocked || !procedure.psi) return;
    EXPECT_TRUE(has(message, options_.tablesFile.string()));
    load(readCapture(options_.tablesFile).sections, {}, kChannel, true);
    EXPECT_EQ(test::sectionsIn(tables()), test::sectionsIn(old_.psi));
  }

  void judgeMap(const Procedure& procedure, const std::string& message, const State& now) {
    EXPECT_TRUE(has(message, "1.2 may be locked; on") || now.map.locked == has(message, "1.2 is locked; on"));
    EXPECT_TRUE(!has(message, "on the air") || now.router == old_.router || now.router == wanted_.router);
    EXPECT_TRUE(has(message, "'qamctl pidmap show 1.2'"));
    if (procedure.leftLocked) return;
    EXPECT_TRUE(has(message, options_.mapFile.string()));
    const Entries rescued = readMapFile(options_.mapFile).entries;
    if (!now.map.locked) return;
    carryOut(link_, planRelease(link_, kChannel, ReleaseBy::kMap, rescued, options_));
    EXPECT_TRUE(state().sameMap(old_));
  }

  void judge(const Procedure& procedure, const test::FakeLink& link, bool theirs,
             const std::string& message) {
    SCOPED_TRACE(message);
    const State now = state();
    if (message.empty()) {  // nothing reads the channel again after the last request
      EXPECT_TRUE((now.sameMap(wanted_) && now.psi == wanted_.psi) || (theirs && link.brokeLast()));
      return;
    }
    const std::string psi = procedure.psi ? "The old PSI of" : "The old intervals of";
    const std::string map = "The old PID map of";
    const std::string lost = " channel 1.2 could not be put back";
    const bool psiLost = has(message, psi + lost), mapLost = has(message, map + lost);
    // Another client may have changed what was not touched.
    EXPECT_TRUE(psiLost || now.psi == old_.psi || (theirs && !has(message, psi)));
    EXPECT_TRUE(mapLost || now.sameMap(old_) || (theirs && !has(message, map)));
    if (psiLost) judgePsi(procedure, message, now);
    if (mapLost) judgeMap(procedure, message, now);
    if (!psiLost && !mapLost && (has(message, "The old ") || !theirs)) {
      EXPECT_FALSE(fs::exists(options_.tablesFile) || fs::exists(options_.mapFile));
    }
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

  // One fault at each third request, with QAM_LONG at each; with QAM_SLICE=23 at each 23rd, because the
  // sanitizers take long.
  void breakEverywhere(const Procedure& procedure, std::string_view fault) {
    const bool theirs = fault == "second client";
    const char* slice = std::getenv("QAM_SLICE");
    const int step = slice != nullptr ? std::atoi(slice) : std::getenv("QAM_LONG") != nullptr ? 1 : 3;
    std::string end;
    for (int at = 0; end.empty(); at += step) {
      for (const auto& left : fs::directory_iterator(scratch_.path)) fs::remove_all(left);
      end = test::inChild([&] {
        SCOPED_TRACE(fmt::format("{}: request {}: {}", procedure.name, at, fault));
        test::FakeLink link(chassis_.headend(), fault, at);
        link.secondClient = [&] { interfere(procedure); };
        if (procedure.map && procedure.psi && !theirs)
          link.after = [&](const Reply&) { expectNoReferenceToNothing(link.log.back()); };
        const std::string message = messageOf([&] { carryOut(link, procedure.plan(link, options_)); });
        if (link.reached()) judge(procedure, link, theirs, message);
        return link.reached() ? "" : "whole";
      });
      EXPECT_TRUE(end.empty() || end == "whole")
          << procedure.name << ' ' << fault << ' ' << at << ": " << end;
    }
  }

  // Two programmes of input 6.1, and with `leftLocked` the locks that another client has left.
  void prepare(bool leftLocked) {
    const ChannelVariables card(link_, kChannel);
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

  void breakAll(Procedure procedure) {
    prepare(procedure.leftLocked);
    link_.log.clear();
    const ChannelChange change = procedure.plan(link_, options_);
    procedure.map = change.map.has_value();
    procedure.psi = change.tables.has_value();
    carryOut(link_, change);
    EXPECT_EQ(link_.log.size(), procedure.requests) << procedure.name;
    wanted_ = state();
    prepare(procedure.leftLocked);
    old_ = state();
    for (const std::string_view fault : test::kFaults) breakEverywhere(procedure, fault);
  }

  ChangeOptions options_{.mapFile = scratch_.path / "map.csv", .tablesFile = scratch_.path / "psi.ts"};
  State base_{};
  State old_{};
  State wanted_{};
};

TEST_F(ChannelChangeTest, EndsOldOrNewOrSaysWhatIsKnown) {
  const Tables small = packTables(readCapture(fs::path(QAM_SAMPLES "/psi-small.ts")).sections);
  const Intervals two = {{PAT, 70}, {CAT, 80}};
  const ChangeOptions force = {.force = true};
  const Procedure procedures[] = {
      {"psi load", 39, [&](auto& l, auto& o) { return planLoad(l, kChannel, small, two, o); }},
      {"psi load --force", 29, [&](auto& l, auto&) { return planLoad(l, kChannel, small, {}, force); }, true},
      {"psi clear", 27, [](auto& l, auto& o) { return planClear(l, kChannel, o); }},
      {"psi interval", 6, [&](auto& l, auto&) { return planIntervals(l, kChannel, two); }},
      {"pidmap load", 12, [](auto& l, auto& o) { return planMap(l, kChannel, mapOf(178, 0x900), o); }},
      {"pidmap clear", 10, [](auto& l, auto& o) { return planMap(l, kChannel, {}, o); }},
      {"pidmap release", 11,
       [](auto& l, auto& o) { return planRelease(l, kChannel, ReleaseBy::kMap, mapOf(90, 0x600), o); }, true},
      {"restore --force", 35,
       [&](auto& l, auto&) {
         const ChannelContent content = {
             .intervals = two, .tables = base_.psi.readable(), .map = base_.map.entries};
         return planRestore(l, kChannel, content, force);
       },
       true},
      {"programme add", 44,
       [](auto& l, auto& o) {
         return planAddProgramme(l, kChannel, SourcePort{5, 0}, "3", {}, o).change;
       }},
      {"programme remove", 39,
       [](auto& l, auto& o) { return planRemoveProgramme(l, kChannel, "1", o).change; }},
  };
  chassis_.drive([&] {
    for (const Procedure& procedure : procedures) breakAll(procedure);
  });
}

}  // namespace
}  // namespace client
