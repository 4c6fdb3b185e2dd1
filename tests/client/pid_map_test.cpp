// PID maps: files, checks, and loads that break off wherever they can.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

#include "client/pid_map_file.h"
#include "client/pid_map_upload.h"
#include "tests/client/fake_router_card.h"
#include "tests/client/fake_server.h"
#include "tests/client/messages.h"
#include "tests/client/program.h"

namespace client {
namespace {

namespace fs = std::filesystem;
using Entries = std::vector<MapEntry>;
using test::FakeRouterCard;
using test::FakeRouterLink;
using test::has;
using test::messageOf;

constexpr Channel kChannel = {0, 1};
constexpr const char* kHeader = "src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n";

// Sources and PIDs of their own, highest source first, so that the card has to sort.
Entries mapOf(std::size_t size, u16 pid) {
  Entries entries;
  for (std::size_t i = 0; i < size; ++i) {
    const auto n = static_cast<u16>(size - i);
    entries.push_back({.sourceSlot = static_cast<u16>(n % 2 == 0 ? 5 : 4),
                       .sourcePort = n % 2u,
                       .sourcePid = static_cast<u16>(pid + n),
                       .sourceProgramme = n,
                       .pid = static_cast<u16>(0x1E00 - pid - n),
                       .programme = 7,
                       .type = static_cast<u16>(n & 0xFF)});
  }
  return entries;
}

Entries sorted(Entries entries) {
  std::ranges::sort(entries, {}, sourceKey);
  return entries;
}

bool carries(const FakeRouterCard& card, const Entries& entries) {
  return holds(card.ports[1].router, sorted(entries));
}

void writeRaw(FakeRouterCard& card, u16 variable, const Bytes& data) {
  FakeRouterLink(card).call({.operation = Operation::kWrite,
                             .variable = variable,
                             .slot = kChannel.slot,
                             .port = kChannel.port,
                             .length = static_cast<u16>(data.size()),
                             .data = data});
}

void setLock(FakeRouterCard& card, bool locked) {
  writeRaw(card, kVarPidMapLock, {0, 0, 0, static_cast<u8>(locked)});
}

class PidMapTest : public ::testing::Test {
 public:
  PidMapTest() {
    std::string pattern = ::testing::TempDir() + "pidmapXXXXXX";
    folder_ = mkdtemp(pattern.data());
    options_.rescueFile = folder_ / "rescue.csv";
  }
  ~PidMapTest() override { fs::remove_all(folder_); }

  std::string write(const std::string& name, const std::string& text) const {
    std::ofstream(folder_ / name) << text;
    return (folder_ / name).string();
  }

  fs::path folder_;
  MapOptions options_;
};

TEST(PidMapFile, ReadsWhatItWritesAndWhatPeopleWrite) {
  const Entries entries = mapOf(256, 0x100);
  EXPECT_EQ(parseMapFile(mapFileText(entries), "f").entries, entries);
  const MapFile file = parseMapFile(std::string("\xEF\xBB\xBF# by hand\r\n\r\n") + kHeader +
                                        "6,16,0x1ffe,1,512,2,255\r\n \n# x\n1, 2 ,3,4,5,6,7",
                                    "f");
  const Entries expected = {{5, 15, 0x1FFE, 1, 512, 2, 255}, {0, 1, 3, 4, 5, 6, 7}};
  EXPECT_EQ(file.entries, expected);
  EXPECT_EQ(file.lines, (std::vector<std::size_t>{4, 7}));
}

TEST(PidMapFile, NamesTheLineOfEveryFault) {
  struct Row {
    std::string text;
    const char* message;
  };
  const std::string header = kHeader;
  std::string tooMany = mapFileText(mapOf(256, 0x100)) + "\n6,1,0x1e01,0,0x1e01,0,0\n";
  const Row rows[] = {
      {"", "map.csv: there is no header"},
      {"# only this\n", "map.csv: there is no header"},
      {"src_slot,src_port\n", "map.csv line 1: the header is not"},
      {header + "1,1,1,1,1,1\n", "map.csv line 2: 6 fields"},
      {header + "1,1,1,1,1,1,1,1\n", "map.csv line 2: 8 fields"},
      {header + "\n1,1,x,1,1,1,1\n", "map.csv line 3: src_pid 'x' is no number"},
      {header + "1,1,0x,1,1,1,1\n", "map.csv line 2: src_pid '0x' is no number"},
      {header + "1,1,1,1,12 3,1,1\n", "map.csv line 2: dst_pid '12 3' is no number"},
      {header + "1,1,1,1,-1,1,1\n", "map.csv line 2: dst_pid '-1' is no number"},
      {header + "1,1,1,1,1,1,\n", "map.csv line 2: type '' is no number"},
      {header + "0,1,1,1,1,1,1\n", "map.csv line 2: src_slot 0 is not from 1 to 6"},
      {header + "7,1,1,1,1,1,1\n", "map.csv line 2: src_slot 7 is not from 1 to 6"},
      {header + "1,0,1,1,1,1,1\n", "map.csv line 2: src_port 0 is not"},
      {header + "1,17,1,1,2,1,1\n", "map.csv line 2: src_port 17 is above 16"},
      {header + "1,1,1,65536,1,1,1\n", "map.csv line 2: src_programme 65536 is not"},
      {header + "1,1,1,1,1,99999999999,1\n", "map.csv line 2: dst_programme 99999999999 is not"},
      {header + "1,1,1,1,1,1,256\n", "map.csv line 2: type 256 is not"},
      {header + "5,1,0x2000,1,1,1,1\n", "map.csv line 2: src_pid 0x2000 is above 0x1FFF"},
      {header + "5,1,1,1,0x2000,1,1\n", "map.csv line 2: dst_pid 0x2000 is above 0x1FFF"},
      {header + "5,1,0x1fff,1,1,1,1\n", "map.csv line 2: src_pid 0x1FFF is that of null packets"},
      {header + "5,1,1,1,0x1fff,1,1\n", "map.csv line 2: dst_pid 0x1FFF is that of null packets"},
      {header + "5,1,1,1,64,1,1\n#\n5,1,1,1,65,1,1\n",
       "map.csv line 2 and map.csv line 4 have the same source"},
      {header + "5,1,1,1,64,1,1\n6,1,1,1,64,1,1\n",
       "line 2 and map.csv line 3 bring two sources onto dst_pid"},
      {header + "4,1,1,1,64,1,1\n", "map.csv line 2: there is no source card in slot 4"},
      {header + "5,3,1,1,64,1,1\n", "map.csv line 2: the source card in slot 5 has no input 3: it has 2"},
      {tooMany, "map.csv line 259 is one too many"},
  };
  for (const Row& row : rows) {
    const std::string message = messageOf([&] {
      const MapFile file = parseMapFile(row.text, "map.csv");
      MapOptions options;
      options.sources = SourceCards{{4, 2}, {5, 16}, {0, 16}};
      options.nameOf = [&](std::size_t i) { return fmt::format("map.csv line {}", file.lines.at(i)); };
      checkMap(file.entries, options);
    });
    EXPECT_TRUE(has(message, row.message)) << message << " instead of " << row.message;
  }
}

TEST(PidMapFile, NotesPidsOfTheCardsOwnTables) {
  std::string notes;
  MapOptions options;
  options.note = [&](const std::string& text) { notes += text + ";"; };
  Entries entries = mapOf(7, 0x100);
  const u16 pids[] = {0, 1, 0x10, 0x11, 0x12, 0x14, 0x20};
  for (std::size_t i = 0; i < entries.size(); ++i) entries[i].pid = pids[i];
  checkMap(entries, options);
  EXPECT_EQ(std::ranges::count(notes, ';'), 4) << notes;
  EXPECT_TRUE(has(notes, "entry 2: dst_pid 0x0001")) << notes;
}

TEST(PidMapWords, AreThoseOfTheRouter) {
  const MapEntry entry{.sourceSlot = 5, .sourcePort = 9, .sourcePid = 0x1234, .pid = 0x1ABC};
  // 0x1234 | 1 << 13, then 0x20 | 0x2BC << 6 | 5 << 1 | 1, then 6.
  EXPECT_EQ(routerWords(entry), (RouterWords{0x3234, 0xAF2B, 6}));
  EXPECT_EQ(entriesOf(std::vector{kUnusedPosition, routerWords(entry)}), Entries{entry});
}

TEST_F(PidMapTest, ReplacesMapsOfAnySize) {
  FakeRouterCard card;
  FakeRouterLink link(card);
  for (const std::size_t size : {1u, 89u, 90u, 256u, 178u, 0u, 0u}) {
    const Entries wanted = mapOf(size, static_cast<u16>(0x100 + size));
    EXPECT_EQ(messageOf([&] { replaceMap(link, kChannel, wanted, options_); }), "") << size;
    EXPECT_TRUE(carries(card, wanted)) << size;
    EXPECT_EQ(readMap(link, kChannel).entries, sorted(wanted)) << size;
    EXPECT_TRUE(fs::is_empty(folder_)) << size;
  }
  EXPECT_EQ(card.ports[1].applied, 7);
  EXPECT_EQ(card.ports[0].applied, 0);
}

enum Fault { kLost, kUnanswered, kRefused, kLostFromThere, kUnansweredOnceThenLost };
constexpr Fault kFaults[] = {kLost, kUnanswered, kRefused, kLostFromThere, kUnansweredOnceThenLost};

void lay(FakeRouterLink& link, Fault fault, int at) {
  link.before = [=](int call, Request& request) {
    if (call == at && fault == kRefused) request.data.push_back(0);
    const bool lost = (call == at && fault == kLost) || (call >= at && fault == kLostFromThere) ||
                      (call > at && fault == kUnansweredOnceThenLost);
    if (lost) throw LinkError("gone");
  };
  link.after = [=](int call, Reply&) {
    if (call == at && (fault == kUnanswered || fault == kUnansweredOnceThenLost)) throw LinkError("gone");
  };
}

// On the air is always one of the two maps, whole; and what the message says is so, whatever breaks where.
TEST_F(PidMapTest, LosesNoMapWhereverALoadBreaksOff) {
  const Entries old = mapOf(100, 0x100);
  const Entries wanted = mapOf(200, 0x900);
  std::map<std::string, int> ends;
  for (const Fault fault : kFaults) {
    bool reached = true;
    for (int at = 0; reached; ++at) {
      FakeRouterCard card;
      FakeRouterLink first(card);
      replaceMap(first, kChannel, old, {});
      card.log.clear();
      FakeRouterLink link(card);
      lay(link, fault, at);
      const std::string message = messageOf([&] { replaceMap(link, kChannel, wanted, options_); });
      const std::string where = fmt::format("call {}, fault {}: {}", at, static_cast<int>(fault), message);
      reached = at < static_cast<int>(card.log.size());
      const bool kept = fs::exists(options_.rescueFile);
      const auto& port = card.ports[1];
      const auto is = [&](const std::string& part) { return has(message, part); };

      if (message.empty()) {
        EXPECT_TRUE(carries(card, wanted) && !port.locked && !kept) << where;
        ++ends["done"];
      } else if (is("sent whole and unlocked")) {
        EXPECT_TRUE(carries(card, wanted) && !port.locked) << where;
        EXPECT_TRUE(kept && is("'qamctl pidmap show 1.2'")) << where;
        ++ends["unverified"];
      } else if (is("The way back failed")) {
        EXPECT_TRUE(carries(card, old) || (is("or the new one") && carries(card, wanted))) << where;
        EXPECT_TRUE(port.locked || is("may be locked")) << where;
        EXPECT_TRUE(kept && is("release 1.2 --restore " + options_.rescueFile.string() + "'")) << where;
        ++ends["stuck"];
      } else {
        EXPECT_TRUE(carries(card, old) && !port.locked && !kept) << where;
        EXPECT_EQ(readMap(first, kChannel).entries, sorted(old)) << where;
        ++ends["unchanged"];
      }
      if (kept) {
        EXPECT_EQ(readMapFile(options_.rescueFile).entries, sorted(old)) << where;
        const bool wasLocked = port.locked;
        const std::string released = messageOf([&] {
          const Entries rescued = readMapFile(options_.rescueFile).entries;
          releaseMap(first, kChannel, ReleaseBy::kMap, rescued, options_);
        });
        EXPECT_EQ(has(released, "not locked"), !wasLocked) << where << released;
        EXPECT_TRUE(!wasLocked || (carries(card, old) && !port.locked)) << where;
        fs::remove(options_.rescueFile);
      }
      ASSERT_LT(at, 100) << where;
    }
  }
  // Every way out has been taken.
  for (const char* end : {"done", "unverified", "stuck", "unchanged"}) EXPECT_GT(ends[end], 0) << end;
}

// A release that breaks off leaves the lock, or the map that it sends, whole.
TEST_F(PidMapTest, LosesNoMapWhereverAReleaseBreaksOff) {
  const Entries old = mapOf(100, 0x100);
  const Entries given = mapOf(90, 0x900);
  for (const ReleaseBy by : {ReleaseBy::kMap, ReleaseBy::kRouter}) {
    for (const Fault fault : kFaults) {
      bool reached = true;
      for (int at = 0; reached; ++at) {
        FakeRouterCard card;
        FakeRouterLink sure(card);
        replaceMap(sure, kChannel, old, {});
        setLock(card, true);
        card.log.clear();
        FakeRouterLink link(card);
        lay(link, fault, at);
        const std::string message = messageOf([&] { releaseMap(link, kChannel, by, given, options_); });
        const std::string where = fmt::format("call {}, fault {}: {}", at, static_cast<int>(fault), message);
        reached = at < static_cast<int>(card.log.size());
        const Entries& sent = by == ReleaseBy::kMap ? given : old;
        EXPECT_TRUE(carries(card, card.ports[1].locked ? old : sent)) << where;
        EXPECT_TRUE(!message.empty() || !card.ports[1].locked) << where;
        if (card.ports[1].locked) releaseMap(sure, kChannel, by, given, options_);
        EXPECT_TRUE(carries(card, sent) && !card.ports[1].locked) << where;
        ASSERT_LT(at, 100) << where;
      }
    }
  }
}

TEST_F(PidMapTest, KeepsHandsOff) {
  const Entries old = mapOf(3, 0x100);
  struct Row {
    const char* what;
    std::function<void(FakeRouterCard&)> arrange;
    Entries wanted;
    const char* message;
    bool touches;
  };
  const Row rows[] = {
      {"locked", [](FakeRouterCard& c) { c.ports[1].locked = true; }, mapOf(2, 9), "pidmap release 1.2'",
       false},
      {"rescue file", [this](FakeRouterCard&) { write("rescue.csv", "x"); }, mapOf(2, 9),
       "move the file away", false},
      {"no folder", [this](FakeRouterCard&) { fs::remove_all(folder_); }, mapOf(2, 9), "cannot be kept",
       false},
      {"257 entries", [](FakeRouterCard&) {}, mapOf(257, 0x100), "one too many", false},
      {"no card", [](FakeRouterCard& c) { c.inputs[4] = 0; }, mapOf(2, 9),
       "input that its source card has not", true},
      {"nothing to put back", [](FakeRouterCard& c) { c.inputs.clear(); }, mapOf(2, 9),
       "Channel 1.2 is locked", true},
  };
  for (const Row& row : rows) {
    FakeRouterCard card;
    FakeRouterLink link(card);
    replaceMap(link, kChannel, old, {});
    row.arrange(card);
    const std::string message = messageOf([&] { replaceMap(link, kChannel, row.wanted, options_); });
    EXPECT_TRUE(has(message, row.message)) << row.what << ": " << message;
    EXPECT_TRUE(carries(card, old)) << row.what;
    EXPECT_EQ(readMap(link, kChannel).entries == sorted(old), !row.touches || !card.ports[1].locked)
        << row.what;
    fs::create_directory(folder_);
    fs::remove(options_.rescueFile);
  }
}

// Between the reading of the map and the lock another client may come in, and the card takes the chunks of
// both.
TEST_F(PidMapTest, PutsNoMixtureOfTwoClientsOnTheAir) {
  FakeRouterCard card;
  FakeRouterLink other(card);
  FakeRouterLink link(card);
  replaceMap(other, kChannel, mapOf(5, 0x100), {});
  link.before = [&](int call, const Request&) {
    if (call == 5) writeRaw(card, kVarPidMapChunk, encodeMapChunk(3, 1, mapOf(1, 0x40)));
  };
  const std::string message = messageOf([&] { replaceMap(link, kChannel, mapOf(9, 0x900), options_); });
  EXPECT_TRUE(has(message, "another client is loading")) << message;
  EXPECT_TRUE(carries(card, mapOf(5, 0x100)));
}

// Entries announced and never written go neither back to the card nor on the air.
TEST_F(PidMapTest, LeavesOutWhatNeverCame) {
  for (const bool releasing : {true, false}) {
    FakeRouterCard card;
    FakeRouterLink link(card);
    const Entries came = mapOf(2, 0x100);
    setLock(card, true);
    writeRaw(card, kVarPidMapChunk, encodeMapChunk(200, 0, came));
    ASSERT_EQ(readMap(link, kChannel).entries.size(), 200u);
    if (releasing) {
      releaseMap(link, kChannel, ReleaseBy::kRecord, {}, options_);
    } else {
      setLock(card, false);
      card.inputs[5] = 1;  // the new map is refused in its second chunk
      Entries wanted = mapOf(100, 0x900);
      wanted.back() = {.sourceSlot = 5, .sourcePort = 1, .sourcePid = 2, .pid = 2};
      const std::string message = messageOf([&] { replaceMap(link, kChannel, wanted, options_); });
      EXPECT_TRUE(has(message, "Nothing was changed")) << message;
    }
    EXPECT_TRUE(carries(card, came)) << releasing;
    EXPECT_EQ(card.ports[1].number, 2u) << releasing;
  }
}

// The program itself, against a card behind a socket.
TEST_F(PidMapTest, Qamctl) {
  FakeRouterCard card;
  test::FakeServer server([&](const Request& r) {
    Reply reply = card.handle(r);
    if (r.operation == Operation::kStatus) {
      const std::string status = R"({"sources":[{"slot":5,"inputs":[{},{}]},{"slot":6,"inputs":[{},{}]}]})";
      reply.result = 0;
      reply.data.assign(status.begin(), status.end());
    }
    return std::vector<Bytes>{encode(reply)};
  });
  const auto run = [&](const std::string& arguments) {
    return test::runProgram(fmt::format("XDG_STATE_HOME={} {} --server {} pidmap {}", folder_.string(),
                                        QAMCTL, server.address(), arguments));
  };
  const std::string map = write("map.csv", mapFileText(mapOf(90, 0x100)));
  const std::string bad = write("bad.csv", std::string(kHeader) + "5,3,1,0,2,0,0\n");
  const fs::path rescue = folder_ / "qamctl" / server.address() / "pidmap-1.2.rescue.csv";
  struct Row {
    std::string arguments;
    int code;
    std::string part;
  };
  const auto check = [&](const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      SCOPED_TRACE(row.arguments);
      test::expect(run(row.arguments), row.code, row.part);
    }
  };
  check({{"load 1.2 " + map, 0, "90 entries loaded"},
         {"show 1.2", 0, "router: holds the record"},
         {"show 1.2", 0, "  5.2  0x0101 -> 0x1cff  programme 1 -> 7, type 1"},
         {"show 1.2 --json", 0, "\"router_holds_record\": true"},
         {"show 1.2 --csv", 0, mapFileText(sorted(mapOf(90, 0x100)))},
         {"load 1.2 " + bad, 1, "bad.csv line 2: the source card in slot 5 has no input 3"},
         {"load 1.2 " + (folder_ / "none.csv").string(), 1, "cannot be read"},
         {"load 1.3 " + map, 2, "is no SLOT.CHANNEL"},
         {"release 1.2 --empty --restore " + map, 2, "excludes"},
         {"release 1.2", 1, "not locked"},
         {"load 2.1 " + map, 1, "no card"}});
  EXPECT_FALSE(fs::exists(rescue));

  setLock(card, true);
  check({{"show 1.2", 0, "LOCKED"},
         {"show 1.2", 0, "router, ANOTHER MAP than the record: 90 entries"},
         {"show 1.2 --csv", 0, "6,1,0x0102,0,0x1cfe,0,0"},
         {"clear 1.2", 1, "'qamctl pidmap release 1.2' ends the lock"},
         {"release 1.2", 0, "released, 90 entries"}});
  EXPECT_TRUE(carries(card, mapOf(90, 0x100)));

  setLock(card, true);
  fs::copy_file(map, rescue);
  check({{"load 1.2 " + map, 1, "release 1.2 --restore " + rescue.string()},
         {"release 1.2 --restore " + rescue.string(), 0, "released, 90 entries"},
         {"clear 1.2", 0, "0 entries"}});
  EXPECT_FALSE(fs::exists(rescue));
  EXPECT_TRUE(carries(card, {}));
}

}  // namespace
}  // namespace client
