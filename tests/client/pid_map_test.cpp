// PID maps on a card and its router, also where a load or a release breaks off.
#include <gtest/gtest.h>

#include <algorithm>

#include "client/pid_map_file.h"
#include "client/pid_map_upload.h"
#include "client/pid_map_variables.h"
#include "tests/client/card_link.h"

namespace client {
namespace {

namespace fs = std::filesystem;
using Entries = std::vector<MapEntry>;
using test::expectSays;
using test::FakeLink;
using test::has;
using test::messageOf;

// Sources and PIDs of their own, highest source first, so that the card has to sort.
Entries mapOf(std::size_t size, u16 pid) {
  Entries entries;
  for (auto n = static_cast<u16>(size); n > 0; --n) {
    entries.push_back({.sourceSlot = static_cast<u16>(n % 2 == 0 ? 5 : 4),
                       .sourcePort = n % 2 == 0 ? n % 16u : 1u,
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

class PidMapTest : public test::CardTest {
 protected:
  bool carries(const Entries& entries) { return holds(routerMap(link_, kChannel), sorted(entries)); }
  Entries recorded() { return readMap(link_, kChannel).entries; }
  // Another client's first chunk of a map that announces more.
  void announce(u32 total, const Entries& entries) {
    FakeLink(chassis_.headend())
        .call(makeRequest(Operation::kWrite, kVarPidMapChunk, kChannel.slot, kChannel.port,
                          encodeMapChunk(total, 0, entries)));
  }
  std::string load(const Entries& entries) {
    return messageOf([&] { replaceMap(link_, kChannel, entries, options_); });
  }

  MapOptions options_{.rescueFile = scratch_.path / "rescue.csv", .note = {}};
  PidMapVariables card_{link_, kChannel};
};

// On the air is always one of the two maps, whole; and what the message says is so, whatever breaks where.
TEST_F(PidMapTest, LosesNoMapWhereverALoadBreaksOff) {
  const Entries old = mapOf(90, 0x100);
  const Entries wanted = mapOf(178, 0x900);
  const std::string file = options_.rescueFile.string();
  const auto history = [&](FakeLink& link, const test::Fault&) -> std::string {
    const std::string message = messageOf([&] { replaceMap(link, kChannel, wanted, options_); });
    SCOPED_TRACE(message);
    const bool stuck = has(message, "The way back failed");
    const bool unverified = has(message, "sent whole and unlocked");
    const bool locked = card_.locked();
    const bool maybeNew = message.empty() || unverified || has(message, "or the new one");
    const bool maybeOld = !message.empty() && !unverified;
    EXPECT_TRUE((maybeNew && carries(wanted)) || (maybeOld && carries(old)));
    EXPECT_TRUE(stuck ? locked || has(message, "may be locked") : !locked);
    EXPECT_TRUE(stuck || recorded() == sorted(maybeNew ? wanted : old));
    EXPECT_EQ(fs::exists(file), stuck || unverified);
    EXPECT_EQ(has(message, "'qamctl pidmap show 1.2'"), stuck || unverified);
    EXPECT_EQ(has(message, "release 1.2 --restore " + file + "'"), stuck);
    if (fs::exists(file)) {
      const Entries rescued = readMapFile(file).entries;
      EXPECT_EQ(rescued, sorted(old));
      expectSays(messageOf([&] { releaseMap(link_, kChannel, ReleaseBy::kMap, rescued, options_); }),
                 locked ? "" : "not locked");
      EXPECT_TRUE(!locked || (carries(old) && !card_.locked()));
    }
    return stuck ? "stuck" : unverified ? "unverified" : message.empty() ? "done" : "unchanged";
  };
  chassis_.drive([&] {
    load(old);
    const auto ends = breakOffEverywhere(history);
    for (const char* end : {"done", "unverified", "stuck", "unchanged"})
      EXPECT_TRUE(ends.contains(end)) << end;
  });
}

TEST_F(PidMapTest, KeepsHandsOff) {
  const Entries old = mapOf(3, 0x100);
  chassis_.drive([&] {
    load(old);
    expectSays(load({{4, 2, 0x100, 0, 0x200}}), "input that its source card has not");
    expectSays(load({{3, 0, 0x100, 0, 0x200}}), "in a source slot that an entry names");
    test::writeFile(options_.rescueFile, Bytes{});
    expectSays(load({}), "move the file away");
    options_.rescueFile = scratch_.path / "none" / "rescue.csv";
    expectSays(load({}), "cannot be kept");
    EXPECT_TRUE(carries(old) && !card_.locked());
    EXPECT_EQ(recorded(), sorted(old));
  });
}

// Between the reading of the map and the lock another client may come in: the card takes the chunks of both.
// What such a client announced and never wrote goes neither back to the card nor on the air.
TEST_F(PidMapTest, PutsNoMixtureOfTwoClientsOnTheAir) {
  const Entries came = mapOf(2, 0x100);
  Entries refused = mapOf(100, 0x900);
  refused.back() = {4, 2, 2, 0, 2};  // in the second chunk
  chassis_.drive([&] {
    load(mapOf(5, 0x100));
    link_.log.clear();
    link_.before = [&](const Request&) {
      if (link_.log.size() == 6) announce(3, mapOf(1, 0x40));  // before the comparison
    };
    expectSays(load(mapOf(9, 0x900)), "another client is loading");
    EXPECT_TRUE(carries(mapOf(5, 0x100)));
    for (const bool releases : {true, false}) {
      card_.setLock(true);
      announce(200, came);
      EXPECT_EQ(recorded().size(), 200u);
      if (releases) {
        releaseMap(link_, kChannel, ReleaseBy::kRecord, {}, options_);
      } else {
        card_.setLock(false);
        expectSays(load(refused), "Nothing was changed");
      }
      EXPECT_TRUE(carries(came));
      EXPECT_EQ(recorded(), sorted(came));
    }
  });
}

}  // namespace
}  // namespace client
