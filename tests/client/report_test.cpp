// What qamctl reads in tables: their texts, and sections, also wrong ones.
#include <gtest/gtest.h>

#include <set>

#include "client/dvb_text.h"
#include "tests/client/streams.h"
#include "tools/psi_decode.h"

namespace client {
namespace {

TEST(Report, ReadsEveryCharacterTableAndLetsNoControlThrough) {
  struct Row {
    const char* name;
    Bytes bytes;
    const char* text;
  };
  const Row rows[] = {
      {"empty", {}, ""},
      {"ISO 6937 with an accent before its letter", {'T', 0xC8, 'u', 'r'}, "Tür"},
      {"an accent without a letter", {'T', 0xC8}, "T\uFFFD"},
      {"Cyrillic", {0x01, 0xBC, 0xD8, 0xE0}, "Мир"},
      {"Latin 9", {0x0B, 0xA4, '1'}, "€1"},
      {"three bytes of selection", {0x10, 0, 2, 0xA3}, "Ł"},
      {"a part of 8859 that never was", {0x10, 0, 12, 'a', 0xA3}, "a\uFFFD"},
      {"selection cut short", {0x10, 0}, ""},
      {"half a character of UCS-2", {0x11, 0x4E, 0x2D, 0x4E}, "中\uFFFD"},
      {"Korean", {0x12, 0xB0, 0xA1}, "가"},
      {"Chinese", {0x13, 0xD6, 0xD0, 0xCE, 0xC4}, "中文"},
      {"Big5", {0x14, 0xA4, 0xA4}, "中"},
      {"UTF-8 and what is none", {0x15, 0xC3, 0xA9, 0xC3, 'a', 0xFF}, "é\uFFFDa\uFFFD"},
      {"a table of a company", {0x1F, 0x01, 'a', 0xE9}, "a\uFFFD"},
      {"reserved selection", {0x0C, 'a'}, "a"},
      {"emphasis and a line break", {'a', 0x86, 'b', 0x87, 0x8A, 'c'}, "ab c"},
      {"emphasis in UCS-2", {0x11, 0xE0, 0x86, 0, 'a', 0xE0, 0x8A, 0, 'b'}, "a b"},
      {"terminal controls", {'a', 0x1B, '[', '2', 'J', 0x07, 0x9B, 'm', 0x7F, 0x00}, "a[2Jm"},
      {"C1 controls in UTF-8", {0x15, 0xC2, 0x9B, 'm'}, "m"},
      {"directions", {0x15, 0xE2, 0x80, 0xAE, 'x'}, "x"},
  };
  for (const Row& row : rows) EXPECT_EQ(dvbText(row.bytes), row.text) << row.name;
}

// Sections whose lengths contradict each other crash decoders that trust them: no body that is cut between
// two entries is decoded, and none in which one of the lengths is one too high.
TEST(Report, DecodesNoSectionWhoseLengthsContradictEachOther) {
  struct Row {
    const char* name;
    u8 tableId;
    Bytes body;
    std::set<std::size_t> whole;  // sizes at which an entry ends
    std::vector<std::size_t> lengthsAt;
  };
  const Row rows[] = {
      {"PAT", 0x00, {0, 1, 0xE1, 0, 0, 2, 0xE2, 0}, {4, 8}, {}},
      {"CAT", 0x01, {9, 4, 0x0B, 0, 0xE1, 0, 0x52, 0}, {0, 6, 8}, {1, 7}},
      {"PMT", 0x02, {0xE1, 1, 0xF0, 2, 0x52, 0, 0x1B, 0xE1, 1, 0xF0, 2, 0x52, 0}, {6, 13}, {3, 5, 10, 12}},
      {"SDT", 0x42, {0, 1, 0xFF, 0, 1, 0xFC, 0x80, 5, 0x48, 3, 1, 0, 0}, {3, 13}, {7, 9}},
      {"SDT of others", 0x46, {0, 1, 0xFF, 0, 1, 0xFC, 0x80, 2, 0x48, 0}, {3, 10}, {7, 9}},
      {"NIT", 0x40, {0xF0, 2, 0x40, 0, 0xF0, 8, 0, 1, 0, 1, 0xF0, 2, 0x41, 0}, {14}, {1, 3, 5, 11, 13}},
      {"NIT of others", 0x41, {0xF0, 0, 0xF0, 6, 0, 1, 0, 1, 0xF0, 0}, {10}, {1, 3, 9}},
      {"BAT", 0x4A, {0xF0, 2, 0x47, 0, 0xF0, 0}, {6}, {1, 3, 5}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    const auto isDecoded = [&](const Bytes& body) {
      return !tools::decodeSection(test::makeSection({.pid = 0x20, .tableId = row.tableId}, body)).is_null();
    };
    for (std::size_t size = 0; size <= row.body.size(); ++size) {
      const Bytes cut(row.body.begin(), row.body.begin() + static_cast<std::ptrdiff_t>(size));
      EXPECT_EQ(isDecoded(cut), row.whole.contains(size)) << size;
    }
    for (const std::size_t at : row.lengthsAt) {
      Bytes wrong = row.body;
      ++wrong[at];
      EXPECT_FALSE(isDecoded(wrong)) << at;
    }
  }
}

}  // namespace
}  // namespace client
