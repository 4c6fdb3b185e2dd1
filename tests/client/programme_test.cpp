// Programmes that come onto an output and leave it: what its map and tables then are, and what is left of
// both wherever a change breaks off.
#include "client/programme.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <functional>

#include "client/pid_map_file.h"
#include "client/psi_capture.h"
#include "client/psi_upload.h"
#include "tests/client/fake_chassis.h"
#include "tests/client/messages.h"
#include "tests/client/streams.h"

namespace client {
namespace {

namespace fs = std::filesystem;
using test::FakeChassis;
using test::FakeChassisLink;
using test::has;
using test::makeSection;
using test::messageOf;

constexpr Channel kChannel = {0, 1};
constexpr SourcePort kInput = {.slot = 5, .port = 0};
constexpr u32 kPatInterval = 77;

Bytes operator+(Bytes a, const Bytes& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

Bytes word(u32 value) {
  return {static_cast<u8>(value >> 8), static_cast<u8>(value)};
}

Bytes ca(u16 system, u16 pid) {
  return Bytes{9, 4} + word(system) + word(0xE000u | pid);
}

const Bytes kLanguage = {0x0A, 4, 'd', 'e', 'u', 0};

struct Es {
  u8 type;
  u16 pid;
  Bytes descriptors{};
};

Section pmt(u16 pid, u16 number, u8 version, u16 pcr, const Bytes& info, const std::vector<Es>& streams) {
  Bytes body = word(0xE000u | pcr) + word(0xF000 + static_cast<u32>(info.size())) + info;
  for (const Es& s : streams) {
    body = body + Bytes{s.type} + word(0xE000u | s.pid) +
           word(0xF000 + static_cast<u32>(s.descriptors.size())) + s.descriptors;
  }
  return makeSection({.pid = pid, .tableId = 2, .extension = number, .version = version}, body);
}

Section pat(u16 stream, u8 version, const std::vector<std::pair<u16, u16>>& programmes) {
  Bytes body;
  for (const auto& [number, pid] : programmes) body = body + word(number) + word(0xE000u | pid);
  return makeSection({.pid = 0, .tableId = 0, .extension = stream, .version = version}, body);
}

struct Service {
  u16 number;
  u8 eit;
  std::string name;
};

Section sdt(u16 stream, u16 network, u8 version, const std::vector<Service>& services) {
  Bytes body = word(network) + Bytes{0xFF};
  for (const auto& [number, eit, name] : services) {
    const Bytes descriptor =
        Bytes{0x48, static_cast<u8>(name.size() + 3), 1, 0, static_cast<u8>(name.size())} +
        Bytes(name.begin(), name.end());
    body = body + word(number) + Bytes{static_cast<u8>(0xFC | eit)} +
           word(0x8000 + static_cast<u32>(descriptor.size())) + descriptor;
  }
  return makeSection({.extension = stream, .version = version}, body);
}

Section cat(u8 version, const std::vector<std::pair<u16, u16>>& systems) {
  Bytes body;
  for (const auto& [system, pid] : systems) body = body + ca(system, pid);
  return makeSection({.pid = 1, .tableId = 1, .extension = 0xFFFF, .version = version}, body);
}

MapEntry entry(u16 from, u16 to, u16 fromProgramme, u16 programme, u16 type) {
  return {.sourceSlot = 5,
          .sourcePort = 0,
          .sourcePid = from,
          .sourceProgramme = fromProgramme,
          .pid = to,
          .programme = programme,
          .type = type};
}

// One and Two share the audio of PID 0x202 and the CA system; number 1 is taken on the output.
FakeChassis chassisWithInput() {
  FakeChassis chassis;
  const auto send = [&](const Section& s) { chassis.input[{s.pid, s.tableId()}].push_back(s.bytes); };
  send(pat(50, 3, {{1, 0x1F0}, {2, 0x1F1}, {3, 0x1F2}}));
  send(pmt(0x1F0, 1, 9, 0x201, ca(0xB00, 0x290), {{2, 0x201}, {3, 0x202, kLanguage}}));
  send(pmt(0x1F1, 2, 9, 0x1211, {}, {{2, 0x210}, {3, 0x202, kLanguage + ca(0xB00, 0x291)}}));
  send(pmt(0x1F2, 3, 9, 0x1FFF, {}, {{6, 0x220}}));
  send(sdt(50, 60, 3, {{1, 3, "One"}, {2, 1, "Two"}, {3, 2, "Three"}}));
  send(cat(3, {{0x100, 0x2F0}, {0xB00, 0x2F1}}));
  return chassis;
}

const MapEntry kLocal = {.sourceSlot = 4,
                         .sourcePort = 1,
                         .sourcePid = 0x40,
                         .sourceProgramme = 8,
                         .pid = 0x101,
                         .programme = 1,
                         .type = 2};
const std::vector<Section> kNames = {
    pat(7, 4, {{0, 0x10}, {1, 0x100}}), pmt(0x100, 1, 2, 0x101, {}, {{2, 0x101}}),
    sdt(7, 9, 31, {{1, 0, "Local"}}), makeSection({.pid = 0x10, .tableId = 0x40, .extension = 9}, 300)};

// An output that carries a programme of another input, and a table that no programme touches.
FakeChassis chassisWithOutput() {
  FakeChassis chassis = chassisWithInput();
  FakeChassisLink link(chassis);
  upload(link, kChannel, planUpload(kNames), {{TableType::kPat, kPatInterval}, {TableType::kCat, 0}});
  replaceMap(link, kChannel, {kLocal}, {});
  return chassis;
}

std::vector<Section> sectionsIn(const FakeChassis& chassis) {
  std::map<std::pair<int, u16>, std::vector<Packet>> packets;
  for (const auto& e : chassis.card.ports[1].store) packets[{e.type, e.pid}].push_back(e.packet);
  std::vector<Section> all;
  for (const auto& [key, list] : packets) {
    for (Section& section : gatherSections(list)) all.push_back(std::move(section));
  }
  return all;
}

std::vector<Section> inOrder(std::vector<Section> sections) {
  std::ranges::stable_sort(sections, {},
                           [](const Section& s) { return std::pair(tableOfId(s.tableId()), s.pid); });
  return sections;
}

class ProgrammeTest : public ::testing::Test {
 public:
  ProgrammeTest() {
    std::string pattern = ::testing::TempDir() + "programmeXXXXXX";
    folder_ = mkdtemp(pattern.data());
    options_.tablesFile = folder_ / "psi.ts";
    options_.map.rescueFile = folder_ / "map.csv";
  }
  ~ProgrammeTest() override { fs::remove_all(folder_); }

  fs::path folder_;
  ProgrammeOptions options_;
};

TEST_F(ProgrammeTest, MapAndTablesFollow) {
  FakeChassis chassis = chassisWithOutput();
  FakeChassisLink link(chassis);
  const auto add = [&](const char* name, std::vector<u16> pass = {}) {
    options_.add.pass = std::move(pass);
    addProgramme(link, kChannel, kInput, name, options_);
  };
  const auto remove = [&](const char* name) { removeProgramme(link, kChannel, name, options_); };
  const auto one = [](u8 version) {
    return pmt(0x102, 2, version, 0x103, ca(0xB00, 0x105), {{2, 0x103}, {3, 0x104, kLanguage}});
  };
  const Section two = pmt(0x107, 3, 0, 0x109, {}, {{2, 0x108}, {3, 0x104, kLanguage + ca(0xB00, 0x10A)}});
  const std::vector<MapEntry> ofOne = {entry(0x201, 0x103, 1, 2, 2), entry(0x202, 0x104, 1, 2, 3),
                                       entry(0x290, 0x105, 1, 2, 0), entry(0x2F1, 0x106, 1, 2, 0)};
  const std::vector<MapEntry> ofTwo = {entry(0x12, 0x12, 0, 0, 0), entry(0x210, 0x108, 2, 3, 2),
                                       entry(0x1211, 0x109, 2, 3, 0), entry(0x291, 0x10A, 2, 3, 0)};
  const std::vector<MapEntry> shared = {entry(0x202, 0x104, 2, 3, 3), entry(0x2F1, 0x106, 2, 3, 0)};
  struct Step {
    const char* what;
    std::function<void()> run;
    std::vector<Section> tables;  // without those that nothing changes
    std::vector<std::vector<MapEntry>> map;
  };
  const Step steps[] = {
      {"one, scrambled",
       [&] { add("one"); },
       {pat(7, 5, {{0, 0x10}, {1, 0x100}, {2, 0x102}}), one(0),
        sdt(7, 9, 0, {{1, 0, "Local"}, {2, 0, "One"}}), cat(0, {{0xB00, 0x106}})},
       {ofOne}},
      {"the same again",
       [&] { add("1"); },
       {pat(7, 5, {{0, 0x10}, {1, 0x100}, {2, 0x102}}), one(0),
        sdt(7, 9, 0, {{1, 0, "Local"}, {2, 0, "One"}}), cat(0, {{0xB00, 0x106}})},
       {ofOne}},
      {"another, with EIT",
       [&] { add("Two", {0x12}); },
       {pat(7, 6, {{0, 0x10}, {1, 0x100}, {2, 0x102}, {3, 0x107}}), one(0), two,
        sdt(7, 9, 1, {{1, 0, "Local"}, {2, 3, "One"}, {3, 1, "Two"}}), cat(0, {{0xB00, 0x106}})},
       {ofOne, ofTwo}},
      {"the first goes",
       [&] { remove("One"); },
       {pat(7, 7, {{0, 0x10}, {1, 0x100}, {3, 0x107}}), two, sdt(7, 9, 2, {{1, 0, "Local"}, {3, 1, "Two"}}),
        cat(0, {{0xB00, 0x106}})},
       {shared, ofTwo}},
      {"the last goes",
       [&] { remove("3"); },
       {pat(7, 8, {{0, 0x10}, {1, 0x100}}), sdt(7, 9, 3, {{1, 0, "Local"}})},
       {}},
  };
  for (const Step& step : steps) {
    step.run();
    std::vector<Section> tables = step.tables;
    tables.insert(tables.end(), {kNames[1], kNames[3]});
    EXPECT_EQ(sectionsIn(chassis), inOrder(tables)) << step.what;
    std::vector<MapEntry> map = {kLocal};
    for (const auto& part : step.map) map.insert(map.end(), part.begin(), part.end());
    EXPECT_EQ(readMap(link, kChannel).entries, asKept(map)) << step.what;
    const auto& interval = chassis.card.ports[1].interval;
    EXPECT_EQ(interval[0], kPatInterval) << step.what;
    EXPECT_EQ(interval[7], 300u) << step.what;  // of the CAT, which stood still and came on the air
    EXPECT_TRUE(fs::is_empty(folder_)) << step.what;
  }
}

TEST_F(ProgrammeTest, TakesPidsThatAreFreeAndRefusesTheOthers) {
  struct Row {
    const char* what;
    std::optional<u16> base;
    std::vector<u16> pass;
    std::size_t taken;  // PIDs from 0x102 on
    u16 pmtPid;         // 0: refused
    u16 streamPid;
    const char* refusal;
  };
  const Row rows[] = {
      {"the lowest block", {}, {}, 0, 0x102, 0x103, ""},
      {"behind those of others", 0x100, {}, 0, 0x102, 0x103, ""},
      {"a PMT may not stand on 0x1ff", 0x1FF, {}, 0, 0x200, 0x201, ""},
      {"nor the block begin there", {}, {}, 0xFD, 0x200, 0x201, ""},
      {"a stream may", 0x3FE, {}, 0, 0x3FE, 0x3FF, ""},
      {"none of tables", 0x10, {}, 0, 0x20, 0x21, ""},
      {"the last ones", 0x1FFD, {}, 0, 0x1FFD, 0x1FFE, ""},
      {"none of null packets", 0x1FFE, {}, 0, 0, 0, "no 2 free PIDs from 0x1ffe"},
      {"a full map", {}, {}, 255, 0, 0, "would have 257 entries"},
      {"a stream passed", {}, {0x220, 0x14}, 0, 0x102, 0x220, ""},
      {"a table of the card's", {}, {0x11}, 0, 0, 0, "PID 0x0011 cannot be passed"},
      {"null packets", {}, {0x1FFF}, 0, 0, 0, "PID 0x1fff cannot be passed"},
      {"another's PID", {}, {0x101}, 0, 0, 0, "has that PID from elsewhere"},
  };
  for (const Row& row : rows) {
    FakeChassis chassis = chassisWithOutput();
    FakeChassisLink link(chassis);
    std::vector<MapEntry> map = {kLocal};
    for (u16 i = 0; i < row.taken; ++i) map.push_back(entry(0x1000 + i, 0x102 + i, 0, 0, 0));
    replaceMap(link, kChannel, map, {});
    const int applied = chassis.router.ports[1].applied;
    options_.add.base = row.base;
    options_.add.pass = row.pass;
    const std::string message = messageOf([&] { addProgramme(link, kChannel, kInput, "Three", options_); });
    EXPECT_TRUE(has(message, row.refusal) && message.empty() == (row.pmtPid != 0))
        << row.what << ": " << message;
    if (row.pmtPid == 0) {
      EXPECT_TRUE(chassis.router.ports[1].applied == applied && chassis.card.ports[1].locks == 1) << row.what;
      continue;
    }
    const auto sections = sectionsIn(chassis);
    const Section expected = pmt(row.pmtPid, 3, 0, kNoPid, {}, {{6, row.streamPid}});
    EXPECT_EQ(std::ranges::count(sections, expected), 1) << row.what;
    map.push_back(entry(0x220, row.streamPid, 3, 3, row.pass.empty() ? 6 : 0));
    if (!row.pass.empty()) map.push_back(entry(0x14, 0x14, 0, 0, 0));
    EXPECT_EQ(readMap(link, kChannel).entries, asKept(map)) << row.what;
  }
}

TEST_F(ProgrammeTest, MakesTheTablesOfAnOutputThatHasNone) {
  FakeChassis chassis = chassisWithInput();
  FakeChassisLink link(chassis);
  options_.add.transportStreamId = 44;
  addProgramme(link, kChannel, kInput, "Three", options_);
  Section services = sdt(44, 60, 0, {{3, 0, "Three"}});
  services.bytes[1] |= 0x40;  // reserved_future_use, which sdt() leaves clear
  setVersion(services, 0);
  const std::vector<Section> expected = {pat(44, 0, {{3, 0x100}}), pmt(0x100, 3, 0, kNoPid, {}, {{6, 0x101}}),
                                         services};
  EXPECT_EQ(sectionsIn(chassis), expected);
  replaceMap(link, kChannel, {entry(0x220, 0x101, 0, 0, 0)}, {});  // as a release leaves it
  addProgramme(link, kChannel, kInput, "Three", options_);
  EXPECT_EQ(sectionsIn(chassis), expected);
  removeProgramme(link, kChannel, "three", options_);
  EXPECT_TRUE(programmesOf(readOutput(link, kChannel)).empty());
  EXPECT_TRUE(readMap(link, kChannel).entries.empty());
}

// ---- Changes that break off

enum Fault { kLost, kUnanswered, kRefused, kLostFromThere, kUnansweredOnceThenLost };
constexpr Fault kFaults[] = {kLost, kUnanswered, kRefused, kLostFromThere, kUnansweredOnceThenLost};

// What is on the air names no PID that nobody routes there.
void expectNoReferenceToNothing(const FakeChassis& chassis, const std::string& where) {
  if (chassis.card.ports[1].locked) return;
  std::set<u16> routed = {kNoPid};
  for (const MapEntry& e : entriesOf(chassis.router.ports[1].router)) routed.insert(e.pid);
  for (const Section& section : sectionsIn(chassis)) {
    if (section.tableId() != 2) continue;
    for (const PidField& field : pidsOfPmt(section))
      EXPECT_TRUE(routed.contains(field.pid(section.bytes)))
          << where << fmt::format(", PID {:#x}", field.pid(section.bytes));
  }
}

struct State {
  std::vector<test::FakeCard::Entry> store;
  std::array<u32, 8> interval;
  std::vector<RouterWords> router;
  bool locked;

  explicit State(const FakeChassis& c)
      : store(c.card.ports[1].store),
        interval(c.card.ports[1].interval),
        router(c.router.ports[1].router),
        locked(c.card.ports[1].locked || c.router.ports[1].locked) {}
  bool operator==(const State&) const = default;
};

// Old or new as a whole; where the way back is cut off too, files hold what was there, and the message says
// so.
TEST_F(ProgrammeTest, LosesNothingWhereverAChangeBreaksOff) {
  FakeChassis one = chassisWithOutput();
  FakeChassisLink sure(one);
  addProgramme(sure, kChannel, kInput, "One", options_);
  one.card.log.clear();
  one.router.log.clear();
  using Change = std::function<void(Link&, const ProgrammeOptions&)>;
  const std::pair<const char*, Change> changes[] = {
      {"add", [](Link& l, const ProgrammeOptions& o) { addProgramme(l, kChannel, kInput, "Two", o); }},
      {"remove", [](Link& l, const ProgrammeOptions& o) { removeProgramme(l, kChannel, "One", o); }}};
  std::map<std::string, int> ends;
  for (const auto& row : changes) {
    const Change& change = row.second;
    FakeChassis done = one;
    FakeChassisLink through(done);
    change(through, options_);
    for (const Fault fault : kFaults) {
      bool reached = true;
      for (int at = 0; reached; ++at) {
        FakeChassis chassis = one;
        chassis.handled = 0;
        FakeChassisLink link(chassis);
        std::string where = fmt::format("{}, fault {} at {}", row.first, static_cast<int>(fault), at);
        link.before = [=](int call, Request& r) {
          if (call == at && fault == kRefused) r.data.push_back(0);
          if ((call == at && fault == kLost) || (call >= at && fault == kLostFromThere) ||
              (call > at && fault == kUnansweredOnceThenLost))
            throw LinkError("gone");
        };
        link.after = [&](int call, Reply&) {
          if (chassis.reachesTheAir) expectNoReferenceToNothing(chassis, where);
          if (call == at && (fault == kUnanswered || fault == kUnansweredOnceThenLost))
            throw LinkError("gone");
        };
        const std::string message = messageOf([&] { change(link, options_); });
        where += ": " + message;
        reached = at < chassis.handled;
        ASSERT_LT(at, 300) << where;
        const bool tablesKept = fs::exists(options_.tablesFile);
        const bool mapKept = fs::exists(options_.map.rescueFile);
        const State now(chassis);
        const std::string end = message.empty() ? "done" : now == State(one) ? "as it was" : "in between";
        ++ends[end];
        EXPECT_TRUE(end != "done" || now == State(done)) << where;
        if (end == "in between" && fault < kLostFromThere) {
          EXPECT_TRUE(has(message, "could not be found in place") && !now.locked) << where;
          EXPECT_EQ(now.store, State(has(message, "are the new ones") ? done : one).store) << where;
        }
        EXPECT_TRUE(!now.locked || tablesKept || mapKept) << where;
        EXPECT_EQ(has(message, options_.tablesFile.string()), tablesKept) << where;
        EXPECT_EQ(has(message, options_.map.rescueFile.string()), mapKept) << where;
        if (tablesKept) {
          EXPECT_TRUE(has(messageOf([&] { change(sure, options_); }), "could not be put back once")) << where;
          FakeChassisLink back(chassis);
          const auto kept = readCapture(options_.tablesFile).sections;
          upload(back, kChannel, planUpload(kept), {}, {.force = true, .progress = {}});
          EXPECT_EQ(sectionsIn(chassis), sectionsIn(one)) << where;
          expectNoReferenceToNothing(chassis, where);
          fs::remove(options_.tablesFile);
        }
        fs::remove(options_.map.rescueFile);
      }
    }
  }
  for (const char* end : {"done", "as it was", "in between"}) EXPECT_GT(ends[end], 0) << end;
}

}  // namespace
}  // namespace client
