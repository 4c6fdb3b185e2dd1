// Captures: which of their sections come out, and the account of what does not.
#include "client/psi_capture.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>

#include "tests/client/messages.h"
#include "tests/client/streams.h"

namespace client {
namespace {

using test::makePat;
using test::makeSection;
using test::Stream;
using test::operator+;  // NOLINT(misc-unused-using-decls): clang-tidy 14 takes no operator for a use
constexpr std::ptrdiff_t kMiddle = 2 * 188;  // of the damaged section
using Notes = std::vector<const char*>;      // parts of them

void expectRead(const Stream& stream, const std::vector<Section>& sections, const Notes& notes) {
  std::istringstream in(std::string(stream.bytes.begin(), stream.bytes.end()));
  const Capture capture = readCapture(in, "test");
  EXPECT_EQ(capture.sections, sections);
  EXPECT_TRUE(std::ranges::equal(capture.notes, notes, test::has)) << testing::PrintToString(capture.notes);
}

// Of four sections the second one (packets 1 to 3) is damaged or surrounded in one way. The third one begins
// in the packet in which that one ends.
TEST(PsiCapture, LosesOnlyWhatIsDamaged) {
  const Section second = makeSection({.extension = 7}, 500);
  const Section third = makeSection({.extension = 8}, 9);
  const auto rest = static_cast<std::ptrdiff_t>(second.bytes.size()) - 183 - 184;
  const Section map = makeSection({.pid = 0x100, .tableId = 2}, 50);
  const std::vector<Section> untouched = {makePat({{1, 0x100}}), map, second, third};
  Stream whole;
  whole.add(untouched[0]).add(second);
  whole.at(3, 1) |= 0x40;
  whole.replace(3 * 188 + 4, 0, {static_cast<u8>(rest)});
  whole.replace(3 * 188 + 5 + rest, 0, third.bytes);
  whole.bytes.resize(4 * 188);
  const Bytes first(whole.bytes.begin() + 188, whole.bytes.begin() + kMiddle);
  const Bytes middle(whole.bytes.begin() + kMiddle, whole.bytes.begin() + 3 * 188);
  whole.add(map);
  const Bytes emptyPacket = Bytes{0x47, 0, 0x11, 0x20, 183} + Bytes(183, 0xFF);
  const auto append = [](Stream& s, const Bytes& what) { s.bytes = s.bytes + what; };
  const auto endlessField = [](Stream& s) { s.at(2, 3) |= 0x20, s.at(2, 4) = 200; };
  const Notes cut = {"1 section cut"}, bytesLost = {"lost 1 time:", "1 section with a CRC error"};
  const Notes packetLost = {"1 continuity error:", "1 section cut"};
  const Notes counterWrong = {"2 continuity errors", "1 section cut"};
  const Notes markedLost = {"1 packet marked as damaged", "1 continuity error:", "1 section cut"};
  const Notes syncLost = {"lost 1 time:", "1 continuity error:", "1 section cut"};
  const std::tuple<const char*, bool, Notes, std::function<void(Stream&)>> rows[] = {
      // whether the second one survives, and what is noted
      {"nothing", true, {}, [](auto&) {}},
      {"garbage in front", true, {"before the first"}, [](auto& s) { s.replace(0, 0, Bytes(1001, 0x48)); }},
      {"sync bytes in front", true, {"before the first"}, [](auto& s) { s.replace(0, 0, Bytes(30, 0x47)); }},
      {"bytes at the end", true, {"60 bytes at the end"}, [&](auto& s) { append(s, Bytes(60, 1)); }},
      {"a start at the end", true, {"60 bytes at the end"}, [&](auto& s) { append(s, Bytes(60, 0x47)); }},
      {"a damaged sync byte", false, syncLost, [](auto& s) { s.at(2, 0) = 0; }},
      {"bytes lost", false, bytesLost, [](auto& s) { s.replace(kMiddle + 30, 50, {}); }},
      {"bytes put in", true, {"lost 1 time:"}, [](auto& s) { s.replace(kMiddle, 0, Bytes(77, 3)); }},
      {"a packet lost", false, packetLost, [](auto& s) { s.replace(kMiddle, 188, {}); }},
      {"a packet twice", true, {}, [&](auto& s) { s.replace(kMiddle, 0, middle); }},
      {"a packet three times", false, packetLost, [&](auto& s) { s.replace(kMiddle, 0, middle + middle); }},
      {"the counter of another packet", false, counterWrong, [](auto& s) { s.at(2, 3) = s.at(1, 3); }},
      {"a bit flipped", false, {"1 section with a CRC error"}, [](auto& s) { s.at(2, 99) ^= 4; }},
      {"marked as damaged", false, markedLost, [](auto& s) { s.at(2, 1) |= 0x80; }},
      {"scrambled", false, {"1 scrambled packet", "1 section cut"}, [](auto& s) { s.at(2, 3) |= 0x80; }},
      {"an endless adaptation field", false, {"1 packet with an imp", "1 section cut"}, endlessField},
      {"no payload", true, {}, [&](auto& s) { s.replace(kMiddle, 0, emptyPacket); }},
      {"a pointer beyond the packet", false, {"1 packet with an imp"}, [](auto& s) { s.at(1, 4) = 183; }},
      {"cut by the next start", false, cut,
       [](auto& s) { s.at(2, 1) |= 0x40, s.at(2, 4) = 0, s.at(2, 5) = 0xFF; }},
      {"cut by the end of the file", true, cut, [&](auto& s) { append(s, first), s.at(5, 3) = 0x13; }},
  };
  for (const auto& [name, survives, notes, damage] : rows) {
    SCOPED_TRACE(name);
    Stream s = whole;
    damage(s);
    auto expected = untouched;
    if (!survives) std::erase(expected, second);
    expectRead(s, expected, notes);
  }
}

TEST(PsiCapture, KeepsTheNewestCurrentSectionsOfEachTable) {
  const Section pat = makePat({{1, 0x100}});
  const Section sdt = makeSection({.extension = 7}, 20);
  const Section newSdt = makeSection({.extension = 7, .version = 1}, 20);
  const Section nextSdt = makeSection({.extension = 7, .version = 1, .current = false}, 20);
  const Section sdt31 = makeSection({.extension = 7, .version = 31}, 20);
  const Section half = makeSection({.extension = 7, .number = 0, .last = 1}, 20);
  const Section otherHalf = makeSection({.extension = 7, .number = 1, .last = 1}, 20);
  const Section beyond = makeSection({.number = 2, .last = 1}, 9);
  const Section pmt = makeSection({.pid = 0x100, .tableId = 2}, 20);
  const Section pmt11 = makeSection({.pid = 0x11, .tableId = 2}, 20);
  Section shortForm = makeSection({}, 20);
  shortForm.bytes[1] &= 0x7F;
  const std::tuple<const char*, std::vector<Section>, std::vector<std::size_t>, Notes> rows[] = {
      // by index which ones are kept, and what is noted
      {"a repetition", {pat, sdt, sdt}, {0, 1}, {}},
      {"a new version", {pat, sdt, newSdt, newSdt}, {0, 2}, {"1 section of an older"}},
      {"a version that wrapped round", {pat, sdt31, sdt}, {0, 2}, {"1 section of an older"}},
      {"a new version of fewer sections", {pat, half, otherHalf, newSdt}, {0, 3}, {"2 sections of an older"}},
      {"a version to come", {pat, sdt, nextSdt}, {0, 1}, {"1 section not yet current"}},
      {"the same version, other content", {pat, sdt, makeSection({.extension = 7}, 30)}, {0, 2}, {}},
      {"half a table", {pat, otherHalf}, {0, 1}, {"1 of 2 sections found"}},
      {"the map before the PAT", {pmt, pat}, {1, 0}, {}},
      {"the map of a network's PID", {makePat({{0, 0x100}}), pmt}, {0}, {}},
      {"a map on a table's PID", {makePat({{1, 0x11}}), pmt11}, {0}, {"on a PID where", "names PID 0x0011"}},
      {"a table on another's PID", {pat, makeSection({.pid = 0x10}, 20)}, {0}, {"on a PID where"}},
      {"no PAT", {sdt}, {0}, {"no PAT"}},
      {"PATs of two streams", {pat, makePat({{2, 0x200}}, 2)}, {0, 1}, {"PATs of 2"}},
      {"as long as it may be", {pat, makeSection({}, 1012)}, {0, 1}, {}},
      {"too long", {pat, makeSection({}, 1017), sdt}, {0, 2}, {"1 section of imp"}},
      {"the short form", {pat, shortForm, sdt}, {0, 2}, {"1 section of imp"}},
      {"numbered beyond its last", {pat, beyond}, {0}, {"1 section of imp"}},
      {"stuffing", {pat, makeSection({.tableId = 0x72}, 20)}, {0}, {}},
      {"tables of other kinds", {pat, makeSection({.tableId = 0x50}, 3000)}, {0}, {"1 section left out"}},
  };
  for (const auto& [name, sections, kept, notes] : rows) {
    SCOPED_TRACE(name);
    std::vector<Section> expected;
    for (const std::size_t i : kept) expected.push_back(sections[i]);
    expectRead(Stream(sections), expected, notes);
  }
}

}  // namespace
}  // namespace client
