// Programmes that are added to an output and removed: its map and tables after that.
#include "client/programme.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "tests/client/card_link.h"
#include "tests/client/messages.h"
#include "tests/client/streams.h"

namespace client {
namespace {

namespace fs = std::filesystem;
using test::makePat;
using test::makeSection;
using test::operator+;  // NOLINT(misc-unused-using-decls): clang-tidy 14 takes no operator for a use
using test::word;
using Entries = std::vector<MapEntry>;
using Sections = std::vector<Section>;

constexpr SourcePort kInput = {.slot = 5, .port = 0};
const Bytes kLanguage = {0x0A, 4, 'd', 'e', 'u', 0};

Bytes ca(u16 system, u16 pid) {
  return Bytes{9, 4} + word(system) + word(0xE000u | pid);
}

struct Es {
  u8 type;
  u16 pid;
  Bytes descriptors{};
};

Section pmt(u16 pid, u16 number, u8 version, u16 pcr, const Bytes& info, const std::vector<Es>& streams) {
  const auto loop = [](const Bytes& bytes) { return word(0xF000u | static_cast<u32>(bytes.size())) + bytes; };
  Bytes body = word(0xE000u | pcr) + loop(info);
  for (const Es& s : streams) body = body + Bytes{s.type} + word(0xE000u | s.pid) + loop(s.descriptors);
  return makeSection({.pid = pid, .tableId = 2, .extension = number, .version = version}, body);
}

// Services with their number, EIT flags and name.
Section sdt(u16 stream, u16 network, u8 version,
            const std::vector<std::tuple<u16, u8, std::string>>& services) {
  Bytes body = word(network) + Bytes{0xFF};
  for (const auto& [number, eit, name] : services) {
    const auto size = static_cast<u8>(name.size());
    body = body + word(number) + Bytes{static_cast<u8>(0xFC | eit)} + word(0x8005u + size) +
           Bytes{0x48, static_cast<u8>(size + 3), 1, 0, size} + test::bytesOf(name);
  }
  return makeSection({.extension = stream, .version = version}, body);
}

Section cat(u8 version, const Bytes& systems) {
  return makeSection({.pid = 1, .tableId = 1, .extension = 0xFFFF, .version = version}, systems);
}

MapEntry entry(u16 from, u16 to, u16 fromProgramme, u16 programme, u16 type) {
  return {5, 0, from, fromProgramme, to, programme, type};
}

// One and Two share the audio of PID 0x202 and the CA system; number 1 is taken on the output.
const Sections kComing = {
    makePat({{1, 0x1F0}, {2, 0x1F1}, {3, 0x1F2}}, 50, 3),
    pmt(0x1F0, 1, 9, 0x201, ca(0xB00, 0x290), {{2, 0x201}, {3, 0x202, kLanguage}}),
    pmt(0x1F1, 2, 9, 0x1211, {}, {{2, 0x210}, {3, 0x202, kLanguage + ca(0xB00, 0x291)}}),
    pmt(0x1F2, 3, 9, 0x1FFF, {}, {{6, 0x220}}),
    sdt(50, 60, 3, {{1, 3, "One"}, {2, 1, "Two"}, {3, 2, "Three"}}),
    cat(3, ca(0x100, 0x2F0) + ca(0xB00, 0x2F1))};

// What the output carries: a programme of another input, and a table that no programme touches.
const MapEntry kLocal = {4, 1, 0x40, 8, 0x101, 1, 2};
const Section kLocalPmt = pmt(0x100, 1, 2, 0x101, {}, {{2, 0x101}});
const Section kNit = makeSection({.pid = 0x10, .tableId = 0x40, .extension = 9}, 300);

class ProgrammeTest : public test::CardTest {
 protected:
  ProgrammeTest() : CardTest(test::Stream(kComing).bytes) {}

  void prepareOutput() {
    const Sections names = {makePat({{0, 0x10}, {1, 0x100}}, 7, 4), kLocalPmt,
                            sdt(7, 9, 31, {{1, 0, "Local"}}), kNit};
    load(names, {{PAT, 77}, {BAT, 0}, {CAT, 0}});
    loadMap({kLocal});
  }
  void add(const char* name) {
    carryOut(link_, planAddProgramme(link_, kChannel, kInput, name, how_, options_).change);
  }
  void remove(const char* name) {
    carryOut(link_, planRemoveProgramme(link_, kChannel, name, options_).change);
  }
  void expectOutput(const char* after, const Sections& expected, Entries map, const Entries& more = {}) {
    SCOPED_TRACE(after);
    EXPECT_EQ(test::sectionsIn(tables()), expected);
    map.insert(map.end(), more.begin(), more.end());
    EXPECT_EQ(readMap(link_, kChannel).entries, asKept(map));
    EXPECT_TRUE(fs::is_empty(scratch_.path));
  }
  AddOptions how_;
  ChangeOptions options_{.mapFile = scratch_.path / "map.csv", .tablesFile = scratch_.path / "psi.ts"};
};

TEST_F(ProgrammeTest, MapAndTablesFollow) {
  const Sections withThree = {makePat({{3, 0x100}}, 44, 0), pmt(0x100, 3, 0, kNullPid, {}, {{6, 0x101}}),
                              sdt(44, 60, 0, {{3, 0, "Three"}})};
  const Entries released = {entry(0x220, 0x101, 0, 0, 0)};

  const auto one = pmt(0x102, 2, 0, 0x103, ca(0xB00, 0x105), {{2, 0x103}, {3, 0x104, kLanguage}});
  const auto two = pmt(0x107, 3, 0, 0x108, {}, {{2, 0x210}, {3, 0x104, kLanguage + ca(0xB00, 0x109)}});
  const Section entitlements = cat(0, ca(0xB00, 0x106));
  const Entries ofOne = {kLocal, entry(0x201, 0x103, 1, 2, 2), entry(0x202, 0x104, 1, 2, 3),
                         entry(0x290, 0x105, 1, 2, 0), entry(0x2F1, 0x106, 1, 2, 0)};
  const Entries ofTwo = {entry(0x12, 0x12, 0, 0, 0), entry(0x210, 0x210, 2, 3, 0),
                         entry(0x1211, 0x108, 2, 3, 0), entry(0x291, 0x109, 2, 3, 0)};
  const Entries shared = {kLocal, entry(0x202, 0x104, 2, 3, 3), entry(0x2F1, 0x106, 2, 3, 0)};
  const Sections withOne = {makePat({{0, 0x10}, {1, 0x100}, {2, 0x102}}, 7, 5), kLocalPmt, one,
                            sdt(7, 9, 0, {{1, 0, "Local"}, {2, 0, "One"}}),     kNit,      entitlements};
  chassis_.drive([&] {
    how_.transportStreamId = 44;
    add("Three");
    expectOutput("one onto an output that has none", withThree, {entry(0x220, 0x101, 3, 3, 6)});
    loadMap(released);
    add("3");
    expectOutput("the same after a release", withThree, released);
    prepareOutput();
    add("one");
    expectOutput("a scrambled one", withOne, ofOne);
    // The stopped CAT is now on the air; all other stopped tables are not.
    EXPECT_EQ(test::intervalsIn(tables()), (std::vector<u32>{77, 300, 300, 300, 300, 300, 0, 300}));
    add("1");
    expectOutput("the same again", withOne, ofOne);
    how_.pass = {0x12, 0x210};
    add("Two");
    expectOutput("another, with EIT and a stream under its own PID",
                 {makePat({{0, 0x10}, {1, 0x100}, {2, 0x102}, {3, 0x107}}, 7, 6), kLocalPmt, one, two,
                  sdt(7, 9, 1, {{1, 0, "Local"}, {2, 3, "One"}, {3, 1, "Two"}}), kNit, entitlements},
                 ofOne, ofTwo);
    remove("One");
    expectOutput("the first went",
                 {makePat({{0, 0x10}, {1, 0x100}, {3, 0x107}}, 7, 7), kLocalPmt, two,
                  sdt(7, 9, 2, {{1, 0, "Local"}, {3, 1, "Two"}}), kNit, entitlements},
                 shared, ofTwo);
    remove("3");
    expectOutput("the last went",
                 {makePat({{0, 0x10}, {1, 0x100}}, 7, 8), kLocalPmt, sdt(7, 9, 3, {{1, 0, "Local"}}), kNit},
                 {kLocal});
  });
}

TEST_F(ProgrammeTest, TakesPidsThatAreFreeAndRefusesTheOthers) {
  // First PID, passed PIDs, number of PIDs used from 0x102 on in addition to 0x101.
  const std::tuple<const char*, std::optional<u16>, std::vector<u16>, u16, const char*> rows[] = {
      {"the lowest two that follow each other", {}, {}, 0, "PMT 0x102, stream 0x103"},
      {"behind those of others", 0x101, {}, 1, "PMT 0x103, stream 0x104"},
      {"a PMT not on 0x1ff", 0x1FF, {}, 0, "PMT 0x200, stream 0x201"},
      {"nor the block begin there", {}, {}, 0xFD, "PMT 0x200, stream 0x201"},
      {"a stream may", 0x3FE, {}, 0, "PMT 0x3fe, stream 0x3ff"},
      {"none of tables", 0x10, {}, 0, "PMT 0x20, stream 0x21"},
      {"the last ones", 0x1FFD, {}, 0, "PMT 0x1ffd, stream 0x1ffe"},
      {"none of null packets", 0x1FFE, {}, 0, "no 2 free PIDs from 0x1ffe"},
      {"a full map", {}, {}, 255, "would have 257 entries"},
      {"passing a table of the card's", {}, {0x11}, 0, "PID 0x0011 cannot be passed"},
      {"passing another's PID", {}, {0x101}, 0, "has that PID from elsewhere"},
  };
  const InputTables source = {
      .input = kInput, .pat = {kComing[0]}, .sdt = {kComing[4]}, .cat = {}, .pmt = {kComing[3]}};
  for (const auto& [name, base, pass, taken, expected] : rows) {
    SCOPED_TRACE(name);
    ChannelState output{.channel = kChannel, .psi = {}, .map = {.entries = {kLocal}}};
    for (u16 i = 0; i < taken; ++i) output.map.entries.push_back(entry(0x1000 + i, 0x102 + i, 0, 0, 0));
    const AddOptions options = {.base = base, .pass = pass, .transportStreamId = {}};
    std::string pids;
    const std::string refusal = test::messageOf([&] {
      const ProgrammePlan plan = planAdd(output, source, 3, options);
      ChannelChange{.before = output, .map = plan.map}.check();
      const MapEntry& stream = *std::ranges::find(plan.map, 0x220, &MapEntry::sourcePid);
      pids = fmt::format("PMT {:#x}, stream {:#x}", plan.pmtPid, stream.pid);
    });
    test::expectSays(pids + refusal, expected);
  }
}

}  // namespace
}  // namespace client
