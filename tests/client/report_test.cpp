// What qamctl tells: texts of tables, decoded sections, times, the status.
#include <gtest/gtest.h>

#include <random>
#include <sstream>

#include "client/psi_capture.h"
#include "client/psi_read_back.h"
#include "client/upload_plan.h"
#include "tests/client/fake_card.h"
#include "tests/client/streams.h"
#include "tools/dvb_text.h"
#include "tools/psi_report.h"
#include "tools/status_report.h"

namespace client {
namespace {

using tools::Json;

TEST(DvbText, ReadsEveryTableAndLetsNoControlThrough) {
  struct Row {
    const char* what;
    Bytes bytes;
    const char* text;
  };
  const Row rows[] = {
      {"empty", {}, ""},
      {"plain", {'N', 'e', 't'}, "Net"},
      {"ISO 6937 with an accent before its letter", {'T', 0xC8, 'u', 'r'}, "Tür"},
      {"an accent without a letter", {'T', 0xC8}, "T\uFFFD"},
      {"Cyrillic", {0x01, 0xBC, 0xD8, 0xE0}, "Мир"},
      {"Latin 9", {0x0B, 0xA4, '1'}, "€1"},
      {"three bytes of selection", {0x10, 0, 2, 0xA3}, "Ł"},
      {"a part of 8859 that never was", {0x10, 0, 12, 'a', 0xA3}, "a\uFFFD"},
      {"selection cut short", {0x10, 0}, ""},
      {"UCS-2", {0x11, 0x4E, 0x2D}, "中"},
      {"half a character of UCS-2", {0x11, 0x4E, 0x2D, 0x4E}, "中\uFFFD"},
      {"Korean", {0x12, 0xB0, 0xA1}, "가"},
      {"Chinese", {0x13, 0xD6, 0xD0, 0xCE, 0xC4}, "中文"},
      {"Big5", {0x14, 0xA4, 0xA4}, "中"},
      {"UTF-8", {0x15, 0xC3, 0xA9}, "é"},
      {"what is no UTF-8", {0x15, 0xC3, 'a', 0xFF}, "\uFFFDa\uFFFD"},
      {"a table of a company", {0x1F, 0x01, 'a', 0xE9}, "a\uFFFD"},
      {"reserved selection", {0x0C, 'a'}, "a"},
      {"emphasis and a line break", {'a', 0x86, 'b', 0x87, 0x8A, 'c'}, "ab c"},
      {"terminal controls", {'a', 0x1B, '[', '2', 'J', 0x07, 0x9B, 'm', 0x7F, 0x00}, "a[2Jm"},
      {"C1 controls in UTF-8", {0x15, 0xC2, 0x9B, 'm'}, "m"},
      {"directions", {0x15, 0xE2, 0x80, 0xAE, 'x'}, "x"},
      {"emphasis in UCS-2", {0x11, 0xE0, 0x86, 0, 'a', 0xE0, 0x8A, 0, 'b'}, "a b"},
  };
  for (const Row& row : rows) EXPECT_EQ(tools::dvbText(row.bytes), row.text) << row.what;
}

// What a server sends as UTF-8 need not be any.
TEST(DvbText, LetsNoFalseUtf8Through) {
  const std::pair<const char*, const char*> rows[] = {
      {"a\x80z", "a\uFFFDz"},
      {"a\xC3z", "a\uFFFDz"},
      {"a\xE4\xB8", "a\uFFFD\uFFFD"},
      {"\xC1\x81", "\uFFFD\uFFFD"},
      {"\xE0\x81\x81", "\uFFFD\uFFFD\uFFFD"},
      {"\xED\xA0\x80", "\uFFFD\uFFFD\uFFFD"},
      {"\xF4\x90\x80\x80", "\uFFFD\uFFFD\uFFFD\uFFFD"},
      {"\xF0\x9F\x93\xBA", "\U0001F4FA"},
  };
  for (const auto& [bytes, text] : rows) EXPECT_EQ(tools::printable(bytes), text);
}

TEST(DvbText, IsAlwaysPrintableUtf8) {
  std::mt19937 random(1);
  for (int round = 0; round < 20000; ++round) {
    Bytes bytes(random() % 12);
    for (u8& b : bytes) b = static_cast<u8>(random());
    if (!bytes.empty() && round % 2 == 0) bytes[0] = static_cast<u8>(random() % 0x20);
    const std::string text = tools::dvbText(bytes);
    EXPECT_EQ(tools::printable(text), text);
    EXPECT_NO_THROW(Json(text).dump());  // throws for what is no UTF-8
    for (const char c : text) EXPECT_FALSE((c >= 0 && c < 0x20) || c == 0x7F);
  }
}

// A read-back of the sections, as a card would give it after an upload.
ReadBack readBackOf(const std::vector<Section>& sections, u32 interval_ticks) {
  test::FakeCard card;
  test::FakeLink link(card);
  Intervals intervals;
  for (const TableType type : kAllTables) intervals[type] = interval_ticks;
  upload(link, {0, 0}, planUpload(sections), intervals);
  return readBack(link, {0, 0});
}

std::vector<Section> sectionsOf(const char* name) {
  return readCapture(std::filesystem::path(test::sample(name))).sections;
}

TEST(PsiReport, NamesWhatTheTablesSay) {
  const Json report = tools::psiReport(readBackOf(sectionsOf("psi-many.ts"), 300), {0, 0}, 1000.0);
  const auto content = [&](TableType type, std::size_t section) {
    return report.at("tables").at(indexOf(type)).at("sections").at(section).at("content");
  };
  EXPECT_EQ(content(TableType::kPat, 0)["programmes"].size(), 60u);
  EXPECT_EQ(content(TableType::kPat, 0)["network_pid"], 0x10);
  EXPECT_EQ(content(TableType::kPmt, 2)["programme"], 3);
  EXPECT_EQ(content(TableType::kPmt, 2)["streams"].size(), 5u);
  EXPECT_EQ(content(TableType::kCat, 0)["ca_systems"][11], (Json{{"system_id", 0x0B0B}, {"pid", 0x180B}}));
  EXPECT_EQ(content(TableType::kNitC, 1)["name"], "Network");
  EXPECT_EQ(content(TableType::kNitO, 0)["name"], "Neighbour");
  EXPECT_EQ(content(TableType::kBat, 0)["name"], "Bouquet");
  EXPECT_EQ(content(TableType::kBat, 0)["transport_streams"].size(), 30u);
  EXPECT_EQ(content(TableType::kSdtO, 4)["services"][5]["name"], "Other 4-5");
  std::size_t services = 0;
  for (const Json& s : report["tables"][indexOf(TableType::kSdtC)]["sections"]) {
    for (const Json& service : s["content"]["services"]) {
      EXPECT_EQ(service["name"], "Service " + std::to_string(++services));
      EXPECT_EQ(service["provider"], "Provider");
    }
  }
  EXPECT_EQ(services, 60u);
  const std::string text = tools::psiText(report);
  for (const char* part :
       {"service 60: \"Service 60\" (Provider)", "bouquet 24576 \"Bouquet\"", "network 41 \"Network\"",
        "programme 60: PMT on PID 0x04b0", "CA system 0x0b00: EMM on PID 0x1800", "300 ticks (300 ms)"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
  }
}

// Such sections crash decoders that trust them.
TEST(PsiReport, DecodesNoSectionWhoseLengthsContradictEachOther) {
  struct Row {
    const char* what;
    u8 tableId;
    Bytes body;
    bool good;
  };
  const Row rows[] = {
      {"PAT", 0x00, {0, 1, 0xE1, 0}, true},
      {"half a programme", 0x00, {0, 1, 0xE1, 0, 0, 2}, false},
      {"CAT", 0x01, {0x09, 4, 0x0B, 0, 0xE1, 0}, true},
      {"descriptor beyond the end", 0x01, {0x09, 5, 0x0B, 0, 0xE1, 0}, false},
      {"descriptor without length", 0x01, {0x09}, false},
      {"PMT", 0x02, {0xE1, 1, 0xF0, 2, 0x52, 0, 0x1B, 0xE1, 1, 0xF0, 0}, true},
      {"programme loop beyond the end", 0x02, {0xE1, 1, 0xF0, 20, 0x52, 0}, false},
      {"descriptor beyond its loop", 0x02, {0xE1, 1, 0xF0, 2, 0x52, 1, 0x1B, 0xE1, 1, 0xF0, 0}, false},
      {"stream loop beyond the end", 0x02, {0xE1, 1, 0xF0, 0, 0x1B, 0xE1, 1, 0xF0, 1}, false},
      {"stream without loop", 0x02, {0xE1, 1, 0xF0, 0, 0x1B, 0xE1, 1}, false},
      {"nothing at all", 0x02, {}, false},
      {"SDT", 0x42, {0, 1, 0xFF, 0, 1, 0xFC, 0x80, 5, 0x48, 3, 1, 0, 0}, true},
      {"services beyond the end", 0x46, {0, 1, 0xFF, 0, 1, 0xFC, 0x80, 6, 0x48, 3, 1, 0, 0}, false},
      {"NIT", 0x40, {0xF0, 2, 0x40, 0, 0xF0, 6, 0, 1, 0, 1, 0xF0, 0}, true},
      {"streams shorter than the rest", 0x41, {0xF0, 2, 0x40, 0, 0xF0, 5, 0, 1, 0, 1, 0xF0, 0}, false},
      {"streams longer than the rest", 0x4A, {0xF0, 2, 0x47, 0, 0xF0, 7, 0, 1, 0, 1, 0xF0, 0}, false},
  };
  for (const Row& row : rows) {
    const Section section = test::makeSection({.pid = 0x20, .tableId = row.tableId}, row.body);
    EXPECT_EQ(tools::decodeSection(section).is_null(), !row.good) << row.what;
  }
}

// Whatever a section with a good CRC says, both forms of the report come out as text that can be printed.
TEST(PsiReport, SurvivesSectionsOfNonsense) {
  std::mt19937 random(2);
  for (int round = 0; round < 300; ++round) {
    auto sections = sectionsOf("psi-small.ts");
    for (Section& s : sections) {
      if (s.tableId() == 0) continue;  // or the maps are not found
      for (int n = 0; n < 3; ++n) s.bytes[8 + random() % (s.bytes.size() - 12)] = static_cast<u8>(random());
      const std::size_t body = s.bytes.size() - 4;
      wire::put32(&s.bytes[body], crc32(std::span(s.bytes).first(body)));
    }
    const Json report = tools::psiReport(readBackOf(sections, 300), {0, 0}, {});
    EXPECT_NO_THROW(report.dump());
    for (const char c : tools::psiText(report)) EXPECT_FALSE(c >= 0 && c < 0x20 && c != '\n');
  }
}

TEST(PsiReport, TellsTheTimeOfAWholeTable) {
  const auto table = [](TableType type, const std::vector<std::size_t>& groups, u32 interval) {
    ReadBack::Table t{
        .interval_ticks = interval, .stored = 0, .pids = {{.pid = 1, .stored = 0, .packets = {}}}};
    for (const std::size_t size : groups) {
      for (std::size_t i = 0; i < size; ++i) {
        t.pids[0].packets.push_back({0x47, static_cast<u8>(i == 0 ? 0x40 : 0)});
        ++t.stored;
      }
    }
    return tools::wholeTableTicks(type, t);
  };
  EXPECT_EQ(table(TableType::kPat, {1}, 100), 100u);
  EXPECT_EQ(table(TableType::kSdtC, {3, 1, 6}, 100), 300u);
  EXPECT_EQ(table(TableType::kSdtC, {3, 1, 6}, 2), 3u + 2u + 6u);
  EXPECT_EQ(table(TableType::kPmt, {1, 1, 2}, 100), 100u);
  EXPECT_EQ(table(TableType::kPmt, {1, 1, 2}, 3), 4u);
  EXPECT_EQ(table(TableType::kSdtC, {3}, 0), std::nullopt);
  EXPECT_EQ(table(TableType::kSdtC, {}, 100), std::nullopt);
}

TEST(PsiReport, SavesAStreamThatLoadsAgain) {
  const auto sections = sectionsOf("psi-full.ts");
  auto tables = readBackOf(sections, 300);
  for (auto& table : tables.tables) {
    for (auto& pid : table.pids) {
      for (Packet& p : pid.packets) p[3] &= 0xF0;  // as other clients upload them
    }
  }
  const Bytes stream = tools::transportStream(tables);
  std::istringstream in(std::string(stream.begin(), stream.end()));
  const Capture again = readCapture(in, "saved");
  EXPECT_EQ(again.sections, sections);
  EXPECT_TRUE(again.notes.empty());
}

TEST(StatusReport, NamesAChannelThatStaysLocked) {
  const Json status =
      Json::parse(R"({"virtual_seconds": 61.5, "aux_hz": 1000, "cards": [{"slot": 3, "state": "running",
      "lcd": "QAM \u001b[2J", "startup_ms": 12, "channels": [{"bit_rate": 38014705, "packets": {"total": 9, "psi": 4},
      "tables": {"PAT": {"set_ticks": 300, "posted": 4}}, "locked_seconds": 9.9}, {"locked_seconds": 10.1}]}],
      "assertion_failures": [{}, {}], "protocol_violations": {"short latch": 3}})");
  const std::string text = tools::statusText(status);
  for (const char* part : {"61.5 s", "1000 ticks", "slot 3: running", "38014705", "PAT 4/300", "3.1",
                           "LOCKED for 10 s", "psi clear 3.2 --force", "failed checks: 2", "short latch 3"}) {
    EXPECT_NE(text.find(part), std::string::npos) << part << "\n" << text;
  }
  EXPECT_EQ(text.find("psi clear 3.1"), std::string::npos) << text;
  EXPECT_EQ(text.find('\x1B'), std::string::npos);
}

TEST(StatusReport, TakesAnyObject) {
  for (const char* odd :
       {"{}", "[]", "3", R"({"cards": 5})", R"({"cards": [1, {}, {"channels": {}}, {"channels": [7, {}]}]})",
        R"({"cards": [{"slot": "x", "channels": [{"tables": [1], "packets": 2, "locked_seconds": "x"}]}]})",
        R"({"aux_hz": "fast", "assertion_failures": {"a": []}, "protocol_violations": 3})"}) {
    EXPECT_NO_THROW(tools::statusText(Json::parse(odd))) << odd;
  }
  EXPECT_EQ(tools::auxHzOf(Json::parse(R"({"aux_hz": 0})")), std::nullopt);
  EXPECT_EQ(tools::auxHzOf(Json::parse(R"({"aux_hz": 60})")), 60.0);
}

}  // namespace
}  // namespace client
