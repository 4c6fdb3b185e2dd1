#include "client/psi_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
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
  bool middleSurvives;
  Counts notes;
  std::function<void(Stream&)> damage;
};

TEST(PsiCapture, LosesOnlyWhatIsDamaged) {
  using enum NoteKind;
  const Counts lostPacket = {{kContinuityError, 1}, {kCutSection, 1}};
  const auto append = [](u8 byte) {
    return [byte](Stream& s) { s.insert(s.bytes.size(), Bytes(60, byte)); };
  };
  const auto set = [](std::size_t packet, std::size_t at, u8 keep, u8 value) {
    return [=](Stream& s) { s.at(packet, at) = static_cast<u8>((s.at(packet, at) & keep) | value); };
  };
  const DamageRow rows[] = {
      {"nothing", true, {}, [](Stream&) {}},
      {"garbage in front", true, {{kLeadingBytes, 1}}, [](Stream& s) { s.insert(0, Bytes(1001, 0x48)); }},
      {"sync bytes in front", true, {{kLeadingBytes, 1}}, [](Stream& s) { s.insert(0, Bytes(30, 0x47)); }},
      {"bytes at the end", true, {{kTrailingBytes, 1}}, append(1)},
      {"a packet's start at the end", true, {{kTrailingBytes, 1}}, append(0x47)},
      {"a damaged sync byte",
       false,
       {{kLostSync, 1}, {kContinuityError, 1}, {kCutSection, 1}},
       set(2, 0, 0, 0)},
      {"bytes lost", false, {{kLostSync, 1}, {kCrcError, 1}}, [](Stream& s) { s.erase(2 * 188 + 30, 50); }},
      {"bytes put in", true, {{kLostSync, 1}}, [](Stream& s) { s.insert(2 * 188, Bytes(77, 3)); }},
      {"a packet lost", false, lostPacket, [](Stream& s) { s.erase(2 * 188, 188); }},
      {"a packet twice", true, {}, [](Stream& s) { s.repeatPacket(2); }},
      {"a packet three times", false, lostPacket, [](Stream& s) { s.repeatPacket(2).repeatPacket(2); }},
      {"the counter of another packet",
       false,
       {{kContinuityError, 2}, {kCutSection, 1}},
       [](Stream& s) { s.at(2, 3) = s.at(1, 3); }},
      {"a bit flipped", false, {{kCrcError, 1}}, [](Stream& s) { s.at(2, 99) ^= 4; }},
      {"marked as damaged",
       false,
       {{kTransportError, 1}, {kContinuityError, 1}, {kCutSection, 1}},
       set(2, 1, 0xFF, 0x80)},
      {"scrambled", false, {{kScrambled, 1}, {kCutSection, 1}}, set(2, 3, 0xFF, 0x80)},
      {"an adaptation field without end",
       false,
       {{kBadPacket, 1}, {kCutSection, 1}},
       [&](Stream& s) { set(2, 3, 0xFF, 0x20)(s), set(2, 4, 0, 200)(s); }},
      {"no payload",
       true,
       {},
       [](Stream& s) {
         Bytes packet(188, 0xFF);
         std::ranges::copy(Bytes{0x47, 0, 0x11, 0x20, 183}, packet.begin());
         s.insert(2 * 188, packet);
       }},
      {"a pointer beyond the packet", false, {{kBadPacket, 1}}, set(1, 4, 0, 183)},
      {"cut by the next start",
       false,
       {{kCutSection, 1}},
       [&](Stream& s) { set(2, 1, 0xFF, 0x40)(s), set(2, 4, 0, 0)(s), set(2, 5, 0, 0xFF)(s); }},
      {"cut by the end of the file",
       true,
       {{kCutSection, 1}},
       [](Stream& s) {
         s.insert(s.bytes.size(), Bytes(s.bytes.begin() + 188, s.bytes.begin() + 376));
         s.at(5, 3) = 0x13;
       }},
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
  Section shortForm = makeSection({}, 20);
  shortForm.bytes[1] &= 0x7F;
  using enum NoteKind;
  const ChoiceRow rows[] = {
      {"a repetition", {pat, sdt, sdt}, {0, 1}, {}},
      {"a new version", {pat, sdt, sdtNew, sdtNew}, {0, 2}, {{kOlderVersion, 1}}},
      {"a version that wrapped round",
       {pat, makeSection({.version = 31}, 9), makeSection({}, 9)},
       {0, 2},
       {{kOlderVersion, 1}}},
      {"a new version of fewer sections", {pat, half, otherHalf, sdtNew}, {0, 3}, {{kOlderVersion, 2}}},
      {"a version to come",
       {pat, sdt, makeSection({.extension = 7, .version = 1, .current = false}, 20)},
       {0, 1},
       {{kNotCurrent, 1}}},
      {"the same version with other content", {pat, sdt, makeSection({.extension = 7}, 30)}, {0, 2}, {}},
      {"half a table", {pat, otherHalf}, {0, 1}, {{kIncomplete, 1}}},
      {"tables that differ in extension", {pat, sdt, makeSection({.extension = 8}, 20)}, {0, 1, 2}, {}},
      {"the map before the PAT", {pmt, pat}, {1, 0}, {}},
      {"a map that no PAT names", {pat, makeSection({.pid = 0x101, .tableId = 2}, 20)}, {0}, {}},
      {"the map of a network's PID", {makePat({0, 0x100}), pmt}, {0}, {}},
      {"a map on the PID of another table",
       {makePat({1, 0x11}), makeSection({.pid = 0x11, .tableId = 2}, 20)},
       {0},
       {{kBadPmtPid, 1}, {kWrongPid, 1}}},
      {"a table on another's PID", {pat, makeSection({.pid = 0x10}, 20)}, {0}, {{kWrongPid, 1}}},
      {"no PAT", {sdt}, {0}, {{kNoPat, 1}}},
      {"PATs of two streams", {pat, makePat({2, 0x200}, 2)}, {0, 1}, {{kSeveralPats, 2}}},
      {"as long as it may be", {pat, makeSection({}, 1012)}, {0, 1}, {}},
      {"too long", {pat, makeSection({}, 1017), sdt}, {0, 2}, {{kBadSection, 1}}},
      {"without the syntax of a table", {pat, shortForm, sdt}, {0, 2}, {{kBadSection, 1}}},
      {"numbered beyond its last", {pat, makeSection({.number = 2, .last = 1}, 20)}, {0}, {{kBadSection, 1}}},
      {"tables of other kinds", {pat, makeSection({.tableId = 0x50}, 3000)}, {0}, {{kOtherTable, 1}}},
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
