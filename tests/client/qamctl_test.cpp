// The program itself against a chassis behind a socket: what it does, what it says, its exit codes. What it
// reads in tables: their texts, and sections, also wrong ones.
#include <gtest/gtest.h>

#include <cstring>
#include <set>

#include "base/text.h"
#include "client/channel_state.h"
#include "client/chassis_services.h"
#include "commands/psi_report.h"
#include "protocol/variables.h"
#include "tests/client/card_link.h"
#include "tests/client/program.h"
#include "tests/client/streams.h"

namespace client {
namespace {

namespace fs = std::filesystem;
using test::expect;
using test::has;

class Qamctl : public test::CardTest, protected test::Program {
 protected:
  Qamctl()
      : Program(fmt::format("XDG_STATE_HOME={} {}", file(""), QAMCTL),
                [this](const Bytes& datagram) { return answer(datagram); }) {}
  std::string file(const char* name) const { return scratch_.path / name; }

  std::optional<std::string> status_;  // instead of the chassis's own
  int lost_ = 0;                       // number of requests to lose from now on
  std::vector<u32> sequences_;         // of requests

 private:
  // The reply follows datagrams that must not be taken for it.
  std::vector<Bytes> answer(const Bytes& datagram) {
    const Request request = decodeRequest(datagram).value();
    sequences_.push_back(request.sequence);
    if (lost_-- > 0) return {};
    Reply reply = link_.call(request);
    reply.sequence = request.sequence;
    if (request.operation == Operation::kStatus && status_)
      reply.data.assign(status_->begin(), status_->end());
    std::vector<Reply> wrong(5, reply);
    wrong[0].sequence -= 1;
    wrong[1].variable ^= 1;
    wrong[2].slot ^= 1;
    wrong[3].port ^= 1;
    wrong[4].operation ^= 64;
    std::vector<Bytes> datagrams = {{}, Bytes(27, 'Q'), datagram};
    for (Reply& w : wrong) {
      w.data = {9};
      datagrams.push_back(encode(w));
    }
    datagrams.push_back(encode(reply));
    return datagrams;
  }
};

TEST_F(Qamctl, ShowsTablesAndSavesNoneThatItCannotReadWhole) {
  const std::string beyond = file("beyond.ts");
  const std::string saved = file("saved.ts");
  chassis_.drive([&] {
    expectCalls({{"psi load 1.2 " QAM_SAMPLES "/psi-eit.ts --interval BAT=60 --interval PAT=50", 0, "EIT"},
                 {"psi show 1.2", 0, "50 ticks (50 ms)"},
                 {"psi show 1.2 --save " + saved, 0, "60 ticks"},
                 {"psi interval 1.2 BAT=77", 0, ""},
                 {"psi show 1.2", 0, "77 ticks"},
                 {"psi show 1.2 --json", 0, "\"interval_ms\": 50.0"},
                 {"psi show 1.2 >/dev/full", 1, ""},
                 {"psi show 1.1 --save " + beyond, 1, "stores no packets"},
                 {"psi load 1.1 " + saved, 0, ""}});
    EXPECT_EQ(test::sectionsIn(tables({0, 0})), test::sectionsIn(tables()));
    expectCalls({{"psi load 1.2 " QAM_SAMPLES "/psi-full.ts", 0, "503 packets"},
                 {"psi load 1.1 " QAM_SAMPLES "/broken.ts", 0, "byte 56400 (188 skipped)"},
                 {"psi load 1.1 " QAM_SAMPLES "/not-a-stream.ts", 1, "no transport stream"},
                 {"psi load 1.1 " + file("absent.ts"), 1, "No such file"},
                 {"psi load 2.1 " QAM_SAMPLES "/psi-small.ts", 1, "no card in this slot"}});
    auto sections = test::onePacketSections(0x46, 0x11, 300);
    std::ranges::copy(test::onePacketSections(2, 0x100, 4), std::back_inserter(sections));  // in no PAT
    load(sections);
    expectCalls({{"psi show 1.2", 0, "SDT_O: 38 packets beyond"},
                 {"psi show 1.2", 0, "PMT: 4 packets beyond"},
                 {"psi show 1.2", 0, "version 0: extension 7: cannot be decoded"},
                 {"psi show 1.2 --save " + beyond, 1, "42 packets cannot be read"}});
    ChannelVariables channel(link_, {0, 1});
    channel.lockTables(true);
    link_.wait(std::chrono::seconds(11));
    expectCalls({{"psi show 1.2 --save " + beyond, 1, "the channel is locked"},
                 {"status", 0, "LOCKED for 11 s"},
                 {"psi clear 1.2", 1, "--force"},
                 {"psi load 1.2 " QAM_SAMPLES "/psi-small.ts", 1, "--force"},
                 {"psi load 1.2 " QAM_SAMPLES "/psi-small.ts --force", 0, "packets"}});
    EXPECT_TRUE(!channel.tablesLocked() && !tables().readable().empty());
    channel.lockTables(true);
    expectCalls({{"psi clear 1.2 --force", 0, ""}});
    EXPECT_TRUE(!channel.tablesLocked() && tables().readable().empty());
  });
  EXPECT_FALSE(fs::exists(beyond));
}

TEST_F(Qamctl, WarnsUntilTheRecordThatCouldNotBeSavedIsKept) {
  chassis_.drive([&] {
    const fs::path para = chassis_.headend().options.flash / "para", aside = para.string() + "2";
    fs::rename(para, aside);
    test::writeFile(para, {});  // a file in place of the folder
    expectCalls({{"var set 1 rfreq 474000", 3, "warning: slot 1: record not kept"},
                 {"var set 1 rflevel 1050", 3, "record not kept"},
                 {"psi interval 1.2 BAT=77", 3, "record not kept"},
                 {"var get 1 symbolrate", 3, "record not kept"},
                 {"psi show 1.1 --save " + file("x.ts"), 1, "record not kept"},
                 {"status", 0, ", record not kept"},
                 {"alarms", 0, "1  major  Card1: record not kept (qam card 1: record not kept)"}});
    auto* record = static_cast<QamCardPara*>(chassis_.headend().chassis.slot(0).descriptor->varPtr);
    const Bytes image = base::bytesOf(*record);
    record->qam_para.ts_id = 7;  // not to be saved
    link_.wait(std::chrono::seconds(11));
    fs::remove(para);
    fs::rename(aside, para);
    expectCalls({{"var get 1 rfreq", 3, "474000"}});
    link_.wait(std::chrono::seconds(11));
    EXPECT_TRUE(test::readFile(para / "card1.dat") == image);
    expectCalls({{"var get 1 rfreq", 0, "474000"}, {"status", 0, "running"}, {"alarms", 0, "no alarm"}});
  });
  EXPECT_EQ(chassis_.headend().alarms.events(), 2U);
}

TEST_F(Qamctl, ReadsAndSetsVariables) {
  chassis_.drive([&] {
    chassis_.board().sensor(1).temperature(-55, chassis_.now());
    chassis_.board().sensor(2).temperature(-1, chassis_.now());
    link_.wait(std::chrono::seconds(2));
    const char* const all = "rfreq, rflevel, symbolrate, qammode, rfswitch and power can";
    expectCalls({{"var list", 0, "950 to 1150 in steps of 5"},
                 {"var set 1 rfreq 1000000", 0, ""},
                 {"var set 1 rfreq 1000001", 2, "52000 to 1000000 (kHz)"},
                 {"var set 1 rflevel 1150", 0, ""},
                 {"var set 1 rflevel 950", 0, ""},
                 {"var set 1 rflevel 951", 2, "950 to 1150 in steps of 5 (0.1 dBuV)"},
                 {"var set 1 qammode 8", 2, "5 (64-QAM), 6 (128-QAM) or 7 (256-QAM)"},
                 {"var set 1 rfswitch on", 2, "rfswitch cannot be 'on': possible are 0 (on) or 1 (off)\n"},
                 {"var set 1 51 1", 2, "no variable"},
                 {"var set 1 rfreq2 562000", 2, all},
                 {"var set 1 32 6900", 0, "clock table"},
                 {"var get 1 36", 0, "Kb/s\n"},
                 {"var get 1 rfreq 31 qammode2 47 temperature2 49", 0,
                  "30  rfreq            1000000 kHz\n31  rflevel          950 (95.0 dBuV)\n"
                  "41  qammode2         5 (64-QAM)\n47  temperature1     -55 deg C\n"
                  "48  temperature2     -1 deg C\n"
                  "49  software_version V2.1.05A\n"},
                 {"var get 1 --json", 0, R"("value": -55)"},
                 {"var set 2 rfreq 600000", 1, "cannot set rfreq of the card in slot 2: no card"}});
    EXPECT_FALSE(has(run("var set 1 32 6875").text, "clock table"));
    const char* const odd = "not what was asked for";
    const std::tuple<u32, Bytes, const char*> replies[] = {
        {kNotRunning, {}, "does not run"},   {kNotWritable, {}, "only be read"},
        {kSettingRefused, {}, "cannot set"}, {kDone, {}, odd},
        {kDone, {0, 1, 2, 3}, odd},          {kDone, {0, 1, 2, 3, 4, 5}, odd},
        {kDone, {1, '3', '0'}, odd},         {kDone, {2, 0, 0, 0, 1}, odd}};
    for (const auto& [result, data, part] : replies) {
      link_.after = [&, code = result, &bytes = data](Reply& reply) {
        reply.result = code, reply.data = bytes;
      };
      expect(run("var get 1 30"), 1, part);
    }
    int keys = 0;
    link_.after = [&](Reply& reply) { reply.result = keys++ < 2 ? u32{kDone} : kTooManyKeys; };
    expect(run("key up up down ok"), 1, "2 of 4 keys were taken: cannot press a key: the menu has not read");
    link_.after = [](Reply& reply) { reply.data = encodeValue(std::string("V\x1B[7m")); };
    expectCalls({{"var get 1 49", 0, "V[7m\n"}, {"var get 1 49 --json", 0, R"("text": "V[7m")"}});
    link_.after = [&](Reply& reply) {
      if (link_.log.back().variable == 38) reply.result = kNotRunning;
    };
    const test::Outcome broken = run("var get 1 30 38");  // prints no partial answer
    EXPECT_TRUE(broken.code == 1 && !has(broken.text, "kHz")) << broken.text;
  });
}

TEST_F(Qamctl, TellsTheStatusAndWhatGoesOutAtTheConnectors) {
  status_ = R"({"virtual_seconds": 61.5, "aux_hz": 1000, "cards": [
    {"slot": 1, "state": "running", "lcd": "QAM \u001b[2J", "startup_ms": 12, "channels": [
      {"bit_rate": 38014705, "packets": {"total": 9, "psi": 4}, "locked_seconds": 10,
       "tables": {"PAT": {"set_ticks": 300, "posted": 4}},
       "rf": {"verdict": "on air", "frequency_khz": 554006.25, "level_dbuv": 100.5,
              "symbol_rate_kbd": 6875, "clock_kbd": 6875.0, "constellation": "64-QAM", "bit_rate": 38014705.9}},
      {"locked_seconds": 10.1,
       "rf": {"verdict": "faulty", "why": "no\u001b clock", "frequency_khz": null, "level_dbuv": 99,
              "symbol_rate_kbd": 6900, "clock_kbd": null, "constellation": null, "bit_rate": 0}}]},
    {"slot": 3, "channels": [{"rf": {"verdict": "off"}}, {}, 5]},
    {"slot": 4}, 7],
    "assertion_failures": [{}, {}], "protocol_violations": {"short latch": 3}})";
  const std::string table =
      "1.1  on air    554.0063  100.5   64-QAM  6875   6875.000  38014706\n"
      "1.2  faulty           -   99.0        -  6900          -         0\n     no clock\n3.1  off";
  chassis_.drive([&] {
    expectCalls(
        {{"rf", 0, table},
         {"rf 3", 0, "bit/s\n3.1  off"},
         {"rf 2", 1, "no card in slot 2"},
         {"rf 4", 1, "reports no RF output"},
         {"rf 1 --json", 0, "\"clock_kbd\": null"},
         {"status", 0, "61.5 s, 1000 ticks a second\nslot 1: running, started in 12 ms, LCD: QAM [2J\n"},
         {"status", 0, " PAT 4/300\n         locked for 10 s: an upload is under way"},
         {"status", 0, "LOCKED for 10 s and silent: its upload broke off. 'qamctl psi load 1.2"},
         {"status", 0, "failed checks: 2\nprotocol violations: short latch 3\n"}});
    status_ = "[]";
    expect(run("rf"), 1, "reports no status");
    status_ = R"({"cards": []})";
    expect(run("rf"), 1, "no card");
  });
}

TEST_F(Qamctl, LoadsShowsAndReleasesPidMaps) {
  const std::string header = "src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n";
  const std::string rows = "5,2,0x0101,1,0x1cff,7,1\n6,1,0x0102,2,0x1cfe,7,2\n";
  const std::string map = file("map.csv");
  const std::string bad = file("bad.csv");
  test::writeFile(map, test::bytesOf(header + rows));
  test::writeFile(bad, test::bytesOf(header + "5,3,1,0,2,0,0\n"));
  chassis_.drive([&] {
    ChannelVariables card(link_, {0, 1});
    expectCalls({{"pidmap load 1.2 " + map, 0, "2 entries loaded"},
                 {"pidmap show 1.2", 0, "  5.2  0x0101 -> 0x1cff  programme 1 -> 7, type 1\n"},
                 {"pidmap show 1.2", 0, "router: holds the record"},
                 {"pidmap show 1.2 --json", 0, "\"router_holds_record\": true"},
                 {"pidmap show 1.2 --csv", 0, header + rows},
                 {"pidmap load 1.2 " + bad, 1, "bad.csv line 2: the source card in slot 5 has no input 3"},
                 {"pidmap load 1.2 " + file("none.csv"), 1, "cannot be read"},
                 {"pidmap release 1.2 --empty --restore " + map, 2, "excludes"},
                 {"pidmap release 1.2", 1, "not locked"},
                 {"pidmap load 2.1 " + map, 1, "no card"}});
    card.lockMap(true);
    expectCalls({{"pidmap show 1.2", 0, "LOCKED"},
                 {"pidmap show 1.2", 0, "router, ANOTHER MAP than the record: 2 entries"},
                 {"pidmap show 1.2 --csv", 0, "6,1,0x0102,0,0x1cfe,0,0"},
                 {"pidmap clear 1.2", 1, "'qamctl pidmap release 1.2' ends the lock"},
                 {"pidmap release 1.2", 0, "released, 2 entries"}});
    card.lockMap(true);
    const fs::path rescue = scratch_.path / "qamctl" / address() / "pidmap-1.2.rescue.csv";
    EXPECT_FALSE(fs::exists(rescue));
    fs::copy_file(map, rescue);
    expectCalls({{"pidmap load 1.2 " + map, 1, "release 1.2 --restore " + rescue.string()},
                 {"pidmap release 1.2 --restore " + rescue.string(), 0, "released, 2 entries"},
                 {"pidmap clear 1.2", 0, "0 entries"}});
    EXPECT_FALSE(fs::exists(rescue));
    EXPECT_TRUE(entriesOf(routerMap(link_, {0, 1})).empty());
  });
}

// A damaged backup is refused as a whole; the message names the file and the item.
TEST_F(Qamctl, RestoresABackupToTheByteAndNoDamagedOne) {
  const std::string saved = file("saved.json");
  const std::string bad = file("bad.json");
  const std::string map = file("map.csv");
  test::writeFile(map, test::bytesOf("src_slot,src_port,src_pid,src_programme,dst_pid,dst_programme,type\n"
                                     "6,1,0x0102,2,0x1cfe,7,2\n5,2,0x0101,1,0x1cff,7,1\n"));
  const std::tuple<const char*, const char*, const char*> damages[] = {
      // a text of the file, what is in its place, a part of the message
      {"{", "", "bad.json: is not JSON"},
      {"\"channel_backup\": 1", "\"channel_backup\": 2", "is no backup of a channel"},
      {"\"1.2\"", "\"7.2\"", "'7.2' is no SLOT.CHANNEL"},
      {"\"SDT_C\": 77", "\"SDT_C\": 65536", "intervals: SDT_C 65536 is not from 0 to 65535"},
      {"\"SDT_C\": 77,", "", "intervals: SDT_C is missing"},
      {"\"SDT_C\": 77", "\"TDT\": 77", "intervals: \"TDT\" is not PAT"},
      {R"("table": "PAT")", R"("table": "EIT")", "packets: entry 1: table: \"EIT\" is not PAT"},
      {"\"pid\": 0", "\"pid\": 1", "packets: entry 1: pid 0x0001 is not that of PAT"},
      {"\"47", "\"4", "packets: entry 1: packet 1 is not 188 bytes in hex"},
      {"\"47", "\"4g", "packets: entry 1: packet 1 is not 188 bytes in hex"},
      {"\"47", "\"46", "packets: entry 1: packet 1 is no packet on PID 0x0000"},
      {R"("table": "SDT_C")", R"("table": "BAT")", "is out of order: tables and PIDs ascend"},
      {"\"src_slot\": 5", "\"src_slot\": 0", "map: entry 1: src_slot 0 is not from 1 to 6"},
      {"\"src_slot\": 5", "\"src_slot\": -5", "map: entry 1: src_slot is missing or is no whole number"},
      {"\"src_pid\": 258", "\"src_pid\": 8192", "map: entry 2: src_pid 0x2000 is above"},
      {"\"dst_pid\": 7422", "\"dst_pid\": 7423", "map: entry 1 and map: entry 2 bring two sources"},
  };
  chassis_.drive([&] {
    expectCalls({{"psi load 1.2 " QAM_SAMPLES "/psi-small.ts --interval SDT_C=77", 0, ""},
                 {"pidmap load 1.2 " + map, 0, ""},
                 {"backup 1.2 " + saved, 0, "packets and 2 map entries in " + saved}});
    const Bytes bytes = test::readFile(saved);
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(run("backup 1.2 --json").text, text);
    EXPECT_EQ(run("backup 1.2").text, text);
    for (const auto& [old, damage, part] : damages) {
      const std::size_t at = text.find(old);
      ASSERT_NE(at, std::string::npos) << old;
      test::writeFile(bad, test::bytesOf(std::string(text).replace(at, std::strlen(old), damage)));
      expect(run("restore 1.1 " + bad), 1, part);
    }
    EXPECT_TRUE(tables({0, 0}).readable().empty());
    ChannelVariables card(link_, {0, 0});
    card.lockTables(true);
    card.lockMap(true);
    expectCalls({{"backup 1.1 " + bad, 1, "locked"},
                 {"restore 1.1 " + saved, 1, "the tables of channel 1.1 are locked"},
                 {"restore 1.1 " + saved + " --force --dry-run", 0, "ends the lock of the PID map, locks"},
                 {"restore 1.1 " + saved + " --force", 0, "2 map entries restored"},
                 {"psi clear 1.2", 0, ""},
                 {"psi interval 1.2 SDT_C=1 CAT=2", 0, ""},
                 {"pidmap clear 1.2", 0, ""},
                 {"restore 1.2 " + saved + " --json", 0, "\"map_entries\": 2"}});
    EXPECT_FALSE(card.tablesLocked() || card.mapLocked());
    EXPECT_EQ(run("backup 1.2").text, text);
    EXPECT_EQ(tables({0, 0}), tables());
  });
}

TEST_F(Qamctl, ReadsEveryCharacterTableAndLetsNoControlThrough) {
  const std::tuple<const char*, Bytes, const char*> rows[] = {
      {"empty", {}, ""},
      {"ISO 6937 with an accent before its letter", {'T', 0xC8, 'u', 'r'}, "Tür"},
      {"an accent without a letter", {'T', 0xC8}, "T\uFFFD"},
      {"Cyrillic", {0x01, 0xBC, 0xD8, 0xE0}, "Мир"},
      {"a part of 8859 that never was", {0x10, 0, 12, 'a', 0xA3}, "a\uFFFD"},
      {"half a character of UCS-2", {0x11, 0x4E, 0x2D, 0x4E}, "中\uFFFD"},
      {"Korean", {0x12, 0xB0, 0xA1}, "가"},
      {"Chinese", {0x13, 0xD6, 0xD0, 0xCE, 0xC4}, "中文"},
      {"UTF-8 and what is none", {0x15, 0xC3, 0xA9, 0xC3, 'a', 0xFF}, "é\uFFFDa\uFFFD"},
      {"a table of a company", {0x1F, 0x01, 'a', 0xE9}, "a\uFFFD"},
      {"reserved selection", {0x0C, 'a'}, "a"},
      {"emphasis and a line break", {'a', 0x86, 'b', 0x87, 0x8A, 'c'}, "ab c"},
      {"emphasis in UCS-2", {0x11, 0xE0, 0x86, 0, 'a', 0xE0, 0x8A, 0, 'b'}, "a b"},
      {"terminal controls", {'a', 0x1B, '[', '2', 'J', 0x07, 0x9B, 'm', 0x7F, 0x00}, "a[2Jm"},
      {"C1 controls in UTF-8", {0x15, 0xC2, 0x9B, 'm'}, "m"},
  };
  for (const auto& [name, bytes, text] : rows) EXPECT_EQ(base::dvbText(bytes), text) << name;
}

// Sections whose lengths contradict each other crash decoders that trust them: a body is decoded where it is
// cut behind an entry, and nowhere else.
TEST_F(Qamctl, DecodesNoSectionWhoseLengthsContradictEachOther) {
  const std::tuple<const char*, u8, Bytes, std::set<std::size_t>> rows[] = {
      // table_id, body, sizes at which an entry ends
      {"PAT", 0x00, {0, 1, 0xE1, 0, 0, 2, 0xE2, 0}, {0, 4, 8}},
      {"CAT", 0x01, {9, 4, 0x0B, 0, 0xE1, 0, 0x52, 0}, {0, 6, 8}},
      {"PMT", 0x02, {0xE1, 1, 0xF0, 2, 0x52, 0, 0x1B, 0xE1, 1, 0xF0, 2, 0x52, 0}, {6, 13}},
      {"PMT with a descriptor beyond its loop", 0x02, {0xE1, 1, 0xF0, 2, 0x52, 1}, {}},
      {"SDT", 0x42, {0, 1, 0xFF, 0, 1, 0xFC, 0x80, 5, 0x48, 3, 1, 0, 0}, {3, 13}},
      {"NIT", 0x40, {0xF0, 2, 0x40, 0, 0xF0, 8, 0, 1, 0, 1, 0xF0, 2, 0x41, 0}, {14}},
      {"NIT whose loop ends before it does", 0x41, {0xF0, 0, 0xF0, 0, 0, 1, 0, 1, 0xF0, 0}, {4}},
      {"BAT", 0x4A, {0xF0, 2, 0x47, 0, 0xF0, 0}, {6}},
  };
  for (const auto& [name, tableId, body, whole] : rows) {
    for (std::size_t size = 0; size <= body.size(); ++size) {
      const Bytes cut(body.begin(), body.begin() + static_cast<std::ptrdiff_t>(size));
      const Section section = test::makeSection({.pid = 0x20, .tableId = tableId}, cut);
      EXPECT_NE(commands::decodeSection(section).is_null(), whole.contains(size)) << name << ' ' << size;
    }
  }
}

TEST_F(Qamctl, NamesStreamsByTheirDescriptors) {
  using namespace std::string_literals;
  const std::tuple<u8, std::string, const char*, const char*> rows[] = {
      {0x06,
       "\x56\x0F"
       "eng\0\0swe\0\0eng\0\0"s,
       "teletext", "eng,swe"},
      {0x06,
       "\x59\x08"
       "fin\0\0\0\0\0\x52\x01\x01"s,
       "subtitles", "fin"},
      {0x06,
       "\x0A\x04"
       "deu\0\x6A\x01\0"s,
       "AC-3 audio", "deu"},
      {0x06, "\x7A\x01\0"s, "E-AC-3 audio", ""},
      {0x06, "\x52\x01\x01"s, "private data", ""},
      {0x1B, "\x6A\x01\0"s, "H.264 video", ""},
  };
  for (const auto& [type, descriptors, kind, language] : rows) {
    const Bytes body = Bytes{0xE1, 1, 0xF0, 0, type, 0xE1, 2} +
                       test::word(static_cast<u32>(0xF000 | descriptors.size())) + test::bytesOf(descriptors);
    const auto stream =
        commands::decodeSection(test::makeSection({.pid = 0x20, .tableId = 2}, body))["streams"][0];
    EXPECT_EQ(stream["kind"], kind);
    EXPECT_EQ(stream.value("language", ""), language) << kind;
  }
}

TEST_F(Qamctl, PrintsTheMibModuleBelowAnyRightBase) {
  expectCalls({{"mib", 0, "below 1.3.6.1.4.1.8072.9999.9999.27."},
               {"mib --base .1.3.6.1.4.1.8072.9999.9999.27", 0, "below 1.3.6.1.4.1.8072.9999.9999.27."},
               {"mib --base ..1.3.6.1.4.1.1.2.3.4", 2, "no number"},
               {"mib --base 1.3.6.1.4.1.1.2.3.4.", 2, "no number"},
               {"mib --base 1.3.6.1.4.1.1.2.3.4294967296", 2, "above 4294967295"},
               {"mib --base 1.3.6.1.4.1.1.2.3", 2, "9 components; right are ten numbers with dots"},
               {"mib --base 3.3.6.1.4.1.1.2.3.4", 2, "above 2"},
               {"mib --base 1.40.6.1.4.1.1.2.3.4", 2, "above 39"},
               {"mib --base 2.4294967216.6.1.4.1.1.2.3.4", 2, "above 4294967215"}});
}

// Repeated under its number, so that the server carries it out once.
TEST_F(Qamctl, RepeatsARequest) {
  chassis_.drive([&] {
    lost_ = 1;
    expectCalls({{"rf", 0, "on air"}, {"rf", 0, "on air"}});
    EXPECT_EQ(sequences_[0], sequences_[1]);
    EXPECT_NE(sequences_.front(), sequences_.back());
  });
}

TEST_F(Qamctl, KnowsAWrongCall) {
  chassis_.drive([&] {
    expectWrongCalls(
        ";psi;fly;psi load;psi load 1.1;psi load 1.3 f.ts;psi load 7.1 f.ts;psi load 11 f.ts;"
        "psi interval 1.1;psi interval 1.1 PAT;psi interval 1.1 EIT=3;psi interval 1.1 PAT=65536;"
        "psi interval 1.1 PAT=-1;psi interval 1.1 PAT=1x;psi interval 1.1 PAT=1 PAT=2;"
        "psi show 1.1 --fly;var get;var get 7 rfreq;var get 1.1 rfreq;var get 1 46;var get 1 0x1e;"
        "var get 1 rfre;var get 1 4294967326;var set 1 rfreq;"
        "var set 1 rfreq -1;var set 1 rfreq 600000 601000;"
        "rf 0;rf 1.1;--server nowhere status;status 1.1;mib --base;mib 1.3.6.1.4.1.32473.1.2.3");
    EXPECT_TRUE(link_.log.empty());
    expectCalls({{"--help", 0, "Exit codes"}, {"psi interval --help", 0, "middle of a section"}});
  });
}

}  // namespace
}  // namespace client
