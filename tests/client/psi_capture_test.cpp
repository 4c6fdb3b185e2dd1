#include "client/psi_capture.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <sstream>

#include "client/upload_plan.h"
#include "tests/client/streams.h"

namespace client {
namespace {

using test::makePat;
using test::makeSection;
using test::Stream;
using Counts = std::map<NoteKind, std::size_t>;

Capture read(const Bytes& bytes) {
  std::istringstream in(std::string(bytes.begin(), bytes.end()));
  return readCapture(in, "test");
}

Counts countsOf(const Capture& capture) {
  Counts counts;
  for (const Note& note : capture.notes) counts[note.kind] += note.count;
  return counts;
}

std::array<std::size_t, kTableCount> sectionsByTable(const Capture& capture) {
  std::array<std::size_t, kTableCount> counts{};
  for (const Section& s : capture.sections) ++counts[indexOf(*tableOfId(s.tableId()))];
  return counts;
}

// What an independent monitor (tsinfo.py) counts in these files.
TEST(PsiCapture, FindsWhatTheSamplesHold) {
  struct Row {
    const char* file;
    std::array<std::size_t, kTableCount> sections;  // PAT, PMT, SDT_C, SDT_O, NIT_C, NIT_O, BAT, CAT
    Counts notes;
  };
  const Row rows[] = {
      {"psi-small.ts", {1, 4, 1, 0, 1, 0, 0, 1}, {}},
      {"psi-many.ts", {1, 60, 2, 5, 2, 2, 1, 1}, {}},
      {"psi-full.ts", {1, 240, 7, 125, 5, 5, 3, 1}, {}},
      {"psi-too-many.ts", {2, 300, 9, 90, 7, 7, 0, 1}, {}},
      {"psi-pid-1ff.ts", {1, 3, 1, 0, 1, 0, 0, 0}, {}},
      {"psi-eit.ts", {1, 5, 1, 0, 1, 0, 0, 0}, {{NoteKind::kOtherTable, 18}}},
      {"two-programmes.ts", {1, 2, 1, 0, 0, 0, 0, 0}, {}},
      {"four-programmes-cbr.ts", {1, 4, 1, 0, 0, 0, 0, 0}, {}},
  };
  for (const Row& row : rows) {
    const Capture capture = readCapture(std::filesystem::path(test::sample(row.file)));
    EXPECT_EQ(sectionsByTable(capture), row.sections) << row.file;
    EXPECT_EQ(countsOf(capture), row.notes) << row.file;
  }
}

TEST(PsiCapture, AccountsForABrokenCapture) {
  const Capture capture = readCapture(std::filesystem::path(test::sample("broken.ts")));
  EXPECT_EQ(sectionsByTable(capture), (std::array<std::size_t, kTableCount>{2, 6, 2, 0, 1, 0, 0, 1}));
  const Counts counts = countsOf(capture);
  for (const NoteKind kind :
       {NoteKind::kCrcError, NoteKind::kLostSync, NoteKind::kTrailingBytes, NoteKind::kNotSections}) {
    EXPECT_TRUE(counts.contains(kind)) << static_cast<int>(kind);
  }
  EXPECT_EQ(counts.at(NoteKind::kSeveralPats), 2u);
  std::string all;
  for (const Note& note : capture.notes) all += note.text + "\n";
  EXPECT_NE(all.find("byte 56400 (188 skipped)"), std::string::npos) << all;  // packet 300
  EXPECT_NE(all.find("100 bytes at the end"), std::string::npos) << all;
}

// A stream of three sections, whose middle one (packets 1 to 3) each row damages or surrounds in one way.
Stream threeSections() {
  Stream s;
  s.add(makePat({1, 0x100}))
      .add(makeSection({.extension = 7}, 500))
      .add(makeSection({.pid = 0x100, .tableId = 2}, 50));
  return s;
}

struct DamageRow {
  const char* what;
  std::function<void(Stream&)> damage;
  bool middleSurvives;
  Counts notes;
};

TEST(PsiCapture, LosesOnlyWhatIsDamaged) {
  const DamageRow rows[] = {
      {"nothing", [](Stream&) {}, true, {}},
      {"garbage in front",
       [](Stream& s) { s.insert(0, Bytes(1001, 0x47 + 1)); },
       true,
       {{NoteKind::kLeadingBytes, 1}}},
      {"sync bytes as garbage in front",
       [](Stream& s) { s.insert(0, Bytes(30, 0x47)); },
       true,
       {{NoteKind::kLeadingBytes, 1}}},
      {"bytes at the end",
       [](Stream& s) { s.insert(s.bytes.size(), Bytes(60, 1)); },
       true,
       {{NoteKind::kTrailingBytes, 1}}},
      {"a packet's start at the end",
       [](Stream& s) { s.insert(s.bytes.size(), Bytes(60, 0x47)); },
       true,
       {{NoteKind::kTrailingBytes, 1}}},
      {"a damaged sync byte",
       [](Stream& s) { s.at(2, 0) = 0; },
       false,
       {{NoteKind::kLostSync, 1}, {NoteKind::kContinuityError, 1}, {NoteKind::kCutSection, 1}}},
      {"bytes lost",
       [](Stream& s) { s.erase(2 * 188 + 30, 50); },
       false,
       {{NoteKind::kLostSync, 1}, {NoteKind::kCrcError, 1}}},
      {"bytes put in", [](Stream& s) { s.insert(2 * 188, Bytes(77, 3)); }, true, {{NoteKind::kLostSync, 1}}},
      {"a packet lost",
       [](Stream& s) { s.erase(2 * 188, 188); },
       false,
       {{NoteKind::kContinuityError, 1}, {NoteKind::kCutSection, 1}}},
      {"a packet twice", [](Stream& s) { s.repeatPacket(2); }, true, {}},
      {"a packet three times",
       [](Stream& s) { s.repeatPacket(2).repeatPacket(2); },
       false,
       {{NoteKind::kContinuityError, 1}, {NoteKind::kCutSection, 1}}},
      {"the counter repeated by another packet",
       [](Stream& s) { s.at(2, 3) = s.at(1, 3); },
       false,
       {{NoteKind::kContinuityError, 2}, {NoteKind::kCutSection, 1}}},
      {"a bit flipped", [](Stream& s) { s.at(2, 99) ^= 4; }, false, {{NoteKind::kCrcError, 1}}},
      {"marked as damaged",
       [](Stream& s) { s.at(2, 1) |= 0x80; },
       false,
       {{NoteKind::kTransportError, 1}, {NoteKind::kContinuityError, 1}, {NoteKind::kCutSection, 1}}},
      {"scrambled",
       [](Stream& s) { s.at(2, 3) |= 0x80; },
       false,
       {{NoteKind::kScrambled, 1}, {NoteKind::kCutSection, 1}}},
      {"an adaptation field without end",
       [](Stream& s) {
         s.at(2, 3) |= 0x20;
         s.at(2, 4) = 200;
       },
       false,
       {{NoteKind::kBadPacket, 1}, {NoteKind::kCutSection, 1}}},
      {"no payload",
       [](Stream& s) {
         s.insert(2 * 188, Bytes(188, 0xFF));
         s.at(2, 0) = 0x47;
         s.at(2, 1) = 0;
         s.at(2, 2) = 0x11;
         s.at(2, 3) = 0x20;
         s.at(2, 4) = 183;
       },
       true,
       {}},
      {"a pointer beyond the packet",
       [](Stream& s) { s.at(1, 4) = 183; },
       false,
       {{NoteKind::kBadPacket, 1}}},
      {"cut by the next start",
       [](Stream& s) {
         s.at(2, 1) |= 0x40;
         s.at(2, 4) = 0;
         s.at(2, 5) = 0xFF;
       },
       false,
       {{NoteKind::kCutSection, 1}}},
      {"cut by the end of the file",
       [](Stream& s) {
         const Bytes start(s.bytes.begin() + 188, s.bytes.begin() + 376);
         s.insert(s.bytes.size(), start);
         s.at(5, 3) = 0x13;
       },
       true,
       {{NoteKind::kCutSection, 1}}},
  };
  const auto untouched = read(threeSections().bytes).sections;
  ASSERT_EQ(untouched.size(), 3u);
  for (const DamageRow& row : rows) {
    Stream s = threeSections();
    row.damage(s);
    const Capture capture = read(s.bytes);
    auto expected = untouched;
    if (!row.middleSurvives) std::erase_if(expected, [](const Section& x) { return x.extension() == 7; });
    EXPECT_EQ(capture.sections, expected) << row.what;
    EXPECT_EQ(countsOf(capture), row.notes) << row.what;
  }
}

struct ChoiceRow {
  const char* what;
  std::vector<Section> sections;
  std::vector<std::size_t> kept;  // by index
  Counts notes;
};

TEST(PsiCapture, KeepsTheNewestCurrentSectionsOfEachTable) {
  const Section pat = makePat({1, 0x100});
  const Section sdt = makeSection({.extension = 7}, 20);
  const Section sdtNew = makeSection({.extension = 7, .version = 1}, 20);
  const Section half = makeSection({.extension = 7, .number = 0, .last = 1}, 20);
  const Section otherHalf = makeSection({.extension = 7, .number = 1, .last = 1}, 20);
  const Section pmt = makeSection({.pid = 0x100, .tableId = 2}, 20);
  Section badLength = makeSection({}, 1012 - 3);  // section_length 1022 - 4 bytes of room: within limits
  const Section tooLong = makeSection({}, 1013 + 4);
  Section shortForm = makeSection({}, 20);
  shortForm.bytes[1] &= 0x7F;
  const ChoiceRow rows[] = {
      {"a repetition", {pat, sdt, sdt}, {0, 1}, {}},
      {"a new version", {pat, sdt, sdtNew, sdtNew}, {0, 2}, {{NoteKind::kOlderVersion, 1}}},
      {"a version that wrapped round",
       {pat, makeSection({.version = 31}, 9), makeSection({.version = 0}, 9)},
       {0, 2},
       {{NoteKind::kOlderVersion, 1}}},
      {"a new version of fewer sections",
       {pat, half, otherHalf, sdtNew},
       {0, 3},
       {{NoteKind::kOlderVersion, 2}}},
      {"a version to come",
       {pat, sdt, makeSection({.extension = 7, .version = 1, .current = false}, 20)},
       {0, 1},
       {{NoteKind::kNotCurrent, 1}}},
      {"the same version with other content", {pat, sdt, makeSection({.extension = 7}, 30)}, {0, 2}, {}},
      {"half a table", {pat, otherHalf}, {0, 1}, {{NoteKind::kIncomplete, 1}}},
      {"tables that differ in extension", {pat, sdt, makeSection({.extension = 8}, 20)}, {0, 1, 2}, {}},
      {"the map before the PAT", {pmt, pat}, {1, 0}, {}},
      {"a map that no PAT names", {pat, makeSection({.pid = 0x101, .tableId = 2}, 20)}, {0}, {}},
      {"the map of a network's PID",
       {makePat({0, 0x20}), makeSection({.pid = 0x20, .tableId = 2}, 20)},
       {0},
       {}},
      {"a map on the PID of another table",
       {makePat({1, 0x11}), makeSection({.pid = 0x11, .tableId = 2}, 20)},
       {0},
       {{NoteKind::kBadPmtPid, 1}, {NoteKind::kWrongPid, 1}}},
      {"a table on another's PID", {pat, makeSection({.pid = 0x10}, 20)}, {0}, {{NoteKind::kWrongPid, 1}}},
      {"no PAT", {sdt}, {0}, {{NoteKind::kNoPat, 1}}},
      {"PATs of two streams", {pat, makePat({2, 0x200}, 2)}, {0, 1}, {{NoteKind::kSeveralPats, 2}}},
      {"as long as it may be", {pat, badLength, makeSection({.extension = 2}, 1012)}, {0, 1, 2}, {}},
      {"too long", {pat, tooLong, sdt}, {0, 2}, {{NoteKind::kBadSection, 1}}},
      {"without the syntax of a table", {pat, shortForm, sdt}, {0, 2}, {{NoteKind::kBadSection, 1}}},
      {"numbered beyond its last",
       {pat, makeSection({.number = 2, .last = 1}, 20)},
       {0},
       {{NoteKind::kBadSection, 1}}},
      {"tables of other kinds",
       {pat, makeSection({.pid = 0x12, .tableId = 0x4E}, 20),
        makeSection({.pid = 0x12, .tableId = 0x50}, 3000)},
       {0},
       {{NoteKind::kOtherTable, 2}}},
  };
  for (const ChoiceRow& row : rows) {
    Stream s;
    for (const Section& section : row.sections) s.add(section);
    const Capture capture = read(s.bytes);
    std::vector<Section> expected;
    for (const std::size_t i : row.kept) expected.push_back(row.sections[i]);
    EXPECT_EQ(capture.sections, expected) << row.what;
    EXPECT_EQ(countsOf(capture), row.notes) << row.what;
  }
}

void mutate(Bytes& bytes, std::mt19937& random) {
  const auto below = [&](std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random);
  };
  for (std::size_t n = 1 + below(12); n > 0 && bytes.size() > 400; --n) {
    const auto at = bytes.begin() + static_cast<std::ptrdiff_t>(below(bytes.size() - 300));
    switch (below(5)) {
      case 0:
        *at = static_cast<u8>(below(256));
        break;
      case 1:
        bytes.erase(at, at + static_cast<std::ptrdiff_t>(1 + below(250)));
        break;
      case 2:
        bytes.insert(at, 1 + below(250), static_cast<u8>(below(2) == 0 ? 0x47 : below(256)));
        break;
      case 3:
        std::fill(at, at + static_cast<std::ptrdiff_t>(1 + below(250)), static_cast<u8>(below(256)));
        break;
      default:
        bytes.resize(bytes.size() - below(200));
        break;
    }
  }
}

// Whatever happens to a capture, nothing comes out that was not in it, and what comes out can be packed
// again.
TEST(PsiCapture, NeverMakesUpASection) {
  std::mt19937 random(20240229);
  for (const char* name : {"psi-small.ts", "psi-many.ts", "psi-eit.ts", "broken.ts"}) {
    const Bytes original = test::readBytes(test::sample(name));
    std::set<Bytes> genuine;
    for (const Section& s : read(original).sections) genuine.insert(s.bytes);
    for (int round = 0; round < 60; ++round) {
      Bytes bytes = original;
      mutate(bytes, random);
      Capture capture;
      try {
        capture = read(bytes);
      } catch (const CaptureError&) {
        continue;
      }
      std::vector<Section> unpacked;
      std::vector<Packet> packets;
      u8 continuity = 0;
      for (const Section& s : capture.sections) {
        EXPECT_TRUE(genuine.contains(s.bytes)) << name << ", round " << round;
        packSection(s, continuity, packets);
      }
      EXPECT_EQ(gatherSections(packets), capture.sections) << name << ", round " << round;
    }
  }
}

}  // namespace
}  // namespace client
