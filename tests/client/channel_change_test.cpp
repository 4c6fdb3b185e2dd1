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
using test::messageOf;
namespace fs = std::filesystem;
using Entries = std::vector<MapEntry>;
using Kind = test::Fault::Kind;

// What a client sees of the channel.
struct State {
  Tables tables;
  std::vector<u32> intervals;
  bool psiLocked;
  Entries map;
  std::vector<chassis::RouterWords> router;
  bool mapLocked;

  bool sameMap(const State& s) const {
    return map == s.map && router == s.router && mapLocked == s.mapLocked;
  }
  bool samePsi(const State& s) const {
    return tables == s.tables && intervals == s.intervals && psiLocked == s.psiLocked;
  }
};

Entries mapOf(u16 size, u16 pid) {
  Entries entries;
  for (u16 n = 0; n < size; ++n)
    entries.push_back({4, 1, static_cast<u16>(pid + n), 0, static_cast<u16>(pid + 300 + n)});
  return entries;
}

struct Procedure {
  const char* name;
  bool map;
  bool psi;
  bool leftLocked;  // by another client
  std::function<ChannelChange(Link&, const ChangeOptions&)> plan;
};

class ChannelChangeTest : public test::CardTest {
 protected:
  State state() {
    const PsiStore psi = tables();
    const PidMap map = readMap(link_, kChannel);
    return {psi.readable(), test::intervalsIn(psi),     psi.locked,
            map.entries,    routerMap(link_, kChannel), map.locked};
  }

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

  std::string judgePsi(const std::string& message, const State& now) {
    const bool is = has(message, "Channel 1.2 is locked and sends no PSI");
    const bool may = has(message, "Channel 1.2 may be locked and sends no PSI");
    EXPECT_TRUE(is ? now.psiLocked : may || !now.psiLocked);
    EXPECT_TRUE(!(is || may) || has(message, "'qamctl psi clear 1.2 --force'"));
    const std::string file = options_.tablesFile;
    if (!fs::exists(file)) return "told";
    EXPECT_TRUE(has(message, file));
    load(readCapture(options_.tablesFile).sections, {}, kChannel, true);
    EXPECT_EQ(test::sectionsIn(tables()), test::sectionsIn(old_.tables));
    return "told";
  }

  std::string judgeMap(const Procedure& procedure, const std::string& message, const State& now) {
    EXPECT_TRUE(has(message, "1.2 may be locked; on") || now.mapLocked == has(message, "1.2 is locked; on"));
    EXPECT_TRUE(!has(message, "on the air") || now.router == old_.router || now.router == wanted_.router);
    EXPECT_TRUE(has(message, "'qamctl pidmap show 1.2'"));
    if (procedure.leftLocked) return "told";
    EXPECT_TRUE(has(message, options_.mapFile.string()));
    const Entries rescued = readMapFile(options_.mapFile).entries;
    if (now.mapLocked) {
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
      if (now.sameMap(wanted_) && now.samePsi(wanted_)) return "new";
      EXPECT_TRUE(fault.kind == Kind::kSecondClient);
      return fmt::format("unseen ({:#x})", link.broken().variable);
    }
    std::string end = "old";
    const std::string psi = procedure.psi ? "The old PSI of" : "The old intervals of";
    const std::string map = "The old PID map of";
    const std::string lost = " channel 1.2 could not be put back";
    const bool theirs = fault.kind == Kind::kSecondClient;  // they may have changed what was not touched
    if (has(message, psi + lost))
      end = judgePsi(message, now);
    else
      EXPECT_TRUE(now.samePsi(old_) || (theirs && !has(message, psi)));
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
    if (base_.tables.empty()) {
      load({}, {{PAT, 77}, {CAT, 0}});
      for (const char* number : {"1", "2"})
        carryOut(link_, planAddProgramme(link_, kChannel, {5, 0}, number).change);
      base_ = state();
    }
    Intervals intervals;
    for (const PsiType type : kAllTables) intervals[type] = base_.intervals[type];
    carryOut(link_, planLoad(link_, kChannel, base_.tables, intervals));
    loadMap(base_.map);
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
  const Procedure procedures[] = {
      {"psi load", false, true, false,
       [&](Link& l, const ChangeOptions& o) {
         return planLoad(l, kChannel, small, {{PAT, 70}, {CAT, 80}}, o);
       }},
      {"psi load --force", false, true, true,
       [&](Link& l, const ChangeOptions& o) {
         ChangeOptions forced = o;
         forced.force = true;
         return planLoad(l, kChannel, small, {}, forced);
       }},
      {"psi clear", false, true, false,
       [&](Link& l, const ChangeOptions& o) { return planClear(l, kChannel, o); }},
      {"psi interval", false, false, false,
       [&](Link& l, const ChangeOptions&) {
         return planIntervals(l, kChannel, {{PAT, 70}, {CAT, 80}});
       }},
      {"pidmap load", true, false, false,
       [&](Link& l, const ChangeOptions& o) { return planMap(l, kChannel, mapOf(178, 0x900), o); }},
      {"pidmap clear", true, false, false,
       [&](Link& l, const ChangeOptions& o) { return planMap(l, kChannel, {}, o); }},
      {"pidmap release", true, false, true,
       [&](Link& l, const ChangeOptions& o) {
         return planRelease(l, kChannel, ReleaseBy::kMap, mapOf(90, 0x600), o);
       }},
      {"programme add", true, true, false,
       [&](Link& l, const ChangeOptions& o) {
         return planAddProgramme(l, kChannel, {5, 0}, "3", {}, o).change;
       }},
      {"programme remove", true, true, false,
       [&](Link& l, const ChangeOptions& o) { return planRemoveProgramme(l, kChannel, "1", o).change; }},
  };
  chassis_.drive([&] {
    for (const Procedure& procedure : procedures) breakAll(procedure);
  });
}

}  // namespace
}  // namespace client
