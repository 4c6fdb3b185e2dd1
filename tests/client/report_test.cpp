// What qamctl tells: texts of tables, decoded sections, the status.
#include <gtest/gtest.h>

#include <random>

#include "client/dvb_text.h"
#include "client/psi_capture.h"
#include "client/psi_read_back.h"
#include "platform/wire.h"
#include "tests/client/streams.h"
#include "tools/psi_report.h"
#include "tools/status_report.h"

namespace client {
namespace {

using tools::Json;

TEST(Report, ReadsEveryCharacterTableAndLetsNoControlThrough) {
  struct Row {
    const char* name;
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
  for (const Row& row : rows) EXPECT_EQ(dvbText(row.bytes), row.text) << row.name;
}

// Such sections crash decoders that trust them.
TEST(Report, DecodesNoSectionWhoseLengthsContradictEachOther) {
  struct Row {
    const char* name;
    Bytes body;
    u8 tableId;
    bool good;
  };
  const Row rows[] = {
      {"PAT", {0, 1, 0xE1, 0}, 0x00, true},
      {"half a programme", {0, 1, 0xE1, 0, 0, 2}, 0x00, false},
      {"CAT", {0x09, 4, 0x0B, 0, 0xE1, 0}, 0x01, true},
      {"descriptor beyond the end", {0x09, 5, 0x0B, 0, 0xE1, 0}, 0x01, false},
      {"descriptor without length", {0x09}, 0x01, false},
      {"PMT", {0xE1, 1, 0xF0, 2, 0x52, 0, 0x1B, 0xE1, 1, 0xF0, 0}, 0x02, true},
      {"programme loop beyond the end", {0xE1, 1, 0xF0, 20, 0x52, 0}, 0x02, false},
      {"descriptor beyond its loop", {0xE1, 1, 0xF0, 2, 0x52, 1, 0x1B, 0xE1, 1, 0xF0, 0}, 0x02, false},
      {"stream loop beyond the end", {0xE1, 1, 0xF0, 0, 0x1B, 0xE1, 1, 0xF0, 1}, 0x02, false},
      {"stream without loop", {0xE1, 1, 0xF0, 0, 0x1B, 0xE1, 1}, 0x02, false},
      {"nothing at all", {}, 0x02, false},
      {"SDT", {0, 1, 0xFF, 0, 1, 0xFC, 0x80, 5, 0x48, 3, 1, 0, 0}, 0x42, true},
      {"services beyond the end", {0, 1, 0xFF, 0, 1, 0xFC, 0x80, 6, 0x48, 3, 1, 0, 0}, 0x46, false},
      {"NIT", {0xF0, 2, 0x40, 0, 0xF0, 6, 0, 1, 0, 1, 0xF0, 0}, 0x40, true},
      {"streams shorter than the rest", {0xF0, 2, 0x40, 0, 0xF0, 5, 0, 1, 0, 1, 0xF0, 0}, 0x41, false},
      {"streams longer than the rest", {0xF0, 2, 0x47, 0, 0xF0, 7, 0, 1, 0, 1, 0xF0, 0}, 0x4A, false},
  };
  for (const Row& row : rows) {
    const Section section = test::makeSection({.pid = 0x20, .tableId = row.tableId}, row.body);
    EXPECT_EQ(tools::decodeSection(section).is_null(), !row.good) << row.name;
  }
}

ReadBack readBackOf(const std::vector<Section>& sections) {
  ReadBack all;
  for (const Chunk& chunk : planUpload(sections).chunks) {
    ReadBack::Table& table = all.tables.at(indexOf(*tableOfId(chunk.tableId)));
    if (table.pids.empty() || table.pids.back().pid != chunk.pid)
      table.pids.push_back({.pid = chunk.pid, .stored = 0, .packets = {}});
    auto& packets = table.pids.back().packets;
    packets.insert(packets.end(), chunk.packets.begin(), chunk.packets.end());
  }
  return all;
}

// Whatever a section with a good CRC says, the report is text that can be printed.
TEST(Report, SurvivesSectionsOfNonsense) {
  std::mt19937 random(2);
  for (int round = 0; round < 300; ++round) {
    auto sections = readCapture(std::filesystem::path(test::sample("psi-small.ts"))).sections;
    for (Section& s : sections) {
      for (int n = 0; n < 3; ++n) s.bytes[8 + random() % (s.bytes.size() - 12)] = static_cast<u8>(random());
      const std::size_t body = s.bytes.size() - kCrcSize;
      wire::put32(&s.bytes[body], crc32(std::span(s.bytes).first(body)));
    }
    const Json report = tools::psiReport(readBackOf(sections), {0, 0}, {});
    EXPECT_NO_THROW(report.dump());  // throws for what is no UTF-8
    for (const char c : tools::psiText(report)) EXPECT_FALSE(c >= 0 && c < 0x20 && c != '\n');
  }
}

TEST(Report, NamesAChannelThatStaysLocked) {
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

}  // namespace
}  // namespace client
