#include "client/psi_upload.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include "client/psi_capture.h"
#include "client/psi_read_back.h"
#include "tests/client/fake_card.h"
#include "tests/client/messages.h"
#include "tests/client/streams.h"

namespace client {
namespace {

using test::FakeCard;
using test::FakeLink;
using test::has;

UploadPlan planOf(const char* name) {
  return planUpload(readCapture(std::filesystem::path(test::sample(name))).sections);
}

std::vector<FakeCard::Entry> entriesOf(const UploadPlan& plan) {
  std::vector<FakeCard::Entry> entries;
  for (const Chunk& chunk : plan.chunks) {
    const int type = static_cast<int>(indexOf(*tableOfId(chunk.tableId)));
    for (const Packet& packet : chunk.packets)
      entries.push_back({.pid = chunk.pid, .type = type, .packet = packet});
  }
  return entries;
}

// The message of the PsiError or LinkError that the call ends with; empty when it goes through.
template <typename Call>
std::string messageOf(const Call& call) {
  try {
    call();
  } catch (const PsiError& e) {
    return std::string("PsiError: ") + e.what();
  } catch (const LinkError& e) {
    return std::string("LinkError: ") + e.what();
  }
  return "";
}

TEST(PsiUpload, ReplacesTheTablesUnderOneLock) {
  for (const char* name : {"psi-small.ts", "psi-many.ts", "psi-full.ts"}) {
    FakeCard card;
    FakeLink link(card);
    const UploadPlan plan = planOf(name);
    upload(link, {0, 1}, planOf("psi-many.ts"), {});
    card.log.clear();
    std::size_t progress = 0;
    const Intervals intervals = {{TableType::kCat, 65535}, {TableType::kPat, 40}, {TableType::kBat, 0}};
    upload(link, {0, 1}, plan, intervals,
           {.force = false, .progress = [&](std::size_t sent, std::size_t) { progress = sent; }});
    EXPECT_EQ(card.ports[1].store, entriesOf(plan)) << name;
    EXPECT_EQ(card.saved[1].store, entriesOf(plan)) << name;
    EXPECT_EQ(card.saved[1].interval, (std::array<u32, 8>{40, 300, 300, 300, 300, 300, 0, 65535})) << name;
    EXPECT_FALSE(card.saved[1].locked) << name;
    EXPECT_EQ(card.ports[1].locks, 2) << name;
    EXPECT_TRUE(card.ports[0].store.empty()) << name;
    EXPECT_EQ(progress, plan.packets) << name;
    // State, lock, chunks, a count of each table, intervals with CAT last, unlock.
    const auto& log = card.log;
    ASSERT_EQ(log.size(), 2 + plan.chunks.size() + kTableCount + 4) << name;
    EXPECT_EQ(log[1].variable, 0x3101) << name;
    EXPECT_EQ(log[log.size() - 4].variable, 0x3201) << name;
    EXPECT_EQ(log[log.size() - 2].data[0], 0x01) << name;
    EXPECT_EQ(log.back().variable, 0x3101) << name;
  }
}

// Between the reading of the lock and its setting another client may come in.
TEST(PsiUpload, PutsNoMixtureOfTwoClientsOnTheAir) {
  FakeCard card;
  FakeLink link(card);
  link.before = [&](int call, const Request& request) {
    if (call == 3) FakeLink(card).call(request);
  };
  const std::string message = messageOf([&] { upload(link, {0, 1}, planOf("psi-small.ts"), {}); });
  EXPECT_TRUE(has(message, "another client is loading the same channel")) << message;
  EXPECT_TRUE(card.ports[1].locked);
}

TEST(PsiUpload, TouchesALockedChannelOnlyByForce) {
  const UploadPlan plan = planOf("psi-small.ts");
  for (const bool clearing : {false, true}) {
    for (const bool force : {false, true}) {
      FakeCard card;
      FakeLink link(card);
      upload(link, {0, 0}, plan, {});
      card.ports[0].locked = true;  // of a client that went away in the middle
      card.ports[0].store.resize(3);
      const auto before = card.ports[0].store;
      const std::string message = messageOf([&] {
        if (clearing)
          clear(link, {0, 0}, force);
        else
          upload(link, {0, 0}, plan, {}, {.force = force, .progress = {}});
      });
      const auto after = clearing ? std::vector<FakeCard::Entry>{} : entriesOf(plan);
      EXPECT_EQ(card.ports[0].store, force ? after : before) << clearing;
      EXPECT_EQ(card.ports[0].locked, !force) << clearing;
      EXPECT_EQ(has(message, "psi clear 1.1 --force"), !force) << message;
    }
  }
}

// Every request of a load, lost, carried out but unanswered, or refused: the message must tell whether the
// channel is silent, and a forced load must always help.
TEST(PsiUpload, SaysHowToGoOnWhereverItBreaksOff) {
  const UploadPlan plan = planOf("psi-many.ts");
  const Intervals intervals = {{TableType::kCat, 100}};
  // State, lock, chunks, counts, interval, unlock.
  const int total = static_cast<int>(plan.chunks.size() + kTableCount) + 4;
  enum Fault { kLost, kUnanswered, kRefused };
  for (int at = 0; at < total; ++at) {
    for (const Fault fault : {kLost, kUnanswered, kRefused}) {
      FakeCard card;
      FakeLink link(card);
      link.before = [&](int call, Request& request) {
        if (call == at && fault == kLost) throw LinkError("gone");
        if (call == at && fault == kRefused) request.length = 1, request.data = {0};
      };
      link.after = [&](int call, Reply&) {
        if (call == at && fault == kUnanswered) throw LinkError("gone");
      };
      const std::string message = messageOf([&] { upload(link, {0, 1}, plan, intervals); });
      const std::string where = fmt::format("request {}, fault {}: {}", at, static_cast<int>(fault), message);
      const bool untouched = at == 0 || (at == 1 && fault == kRefused);
      const bool unknown = (at == 1 || at == total - 1) && fault != kRefused;
      ASSERT_FALSE(message.empty()) << where;
      EXPECT_EQ(has(message, "is locked and sends no PSI"), !untouched && !unknown) << where;
      EXPECT_EQ(has(message, "may be locked"), unknown) << where;
      EXPECT_EQ(has(message, "'qamctl psi load 1.2 FILE --force'"), !untouched) << where;
      EXPECT_TRUE(card.ports[1].locked || untouched || unknown) << where;

      link.before = nullptr;
      link.after = nullptr;
      EXPECT_EQ(messageOf([&] {
                  upload(link, {0, 1}, plan, intervals, {.force = true, .progress = {}});
                }),
                "")
          << where;
      EXPECT_EQ(card.saved[1].store, entriesOf(plan)) << where;
    }
  }
}

TEST(SetIntervals, LastWritesTheIntervalThatMakesTheCardSave) {
  using Writes = std::vector<std::tuple<u32, u8, u32>>;  // port, table_id, ticks
  struct Row {
    const char* what;
    u32 port;
    Intervals intervals;
    Writes writes;
  };
  const Row rows[] = {
      {"channel 1", 0, {{TableType::kPat, 7}}, {{0, 0x00, 7}, {1, 0x01, 222}}},
      {"channel 1, CAT", 0, {{TableType::kCat, 7}}, {{0, 0x01, 7}, {1, 0x01, 222}}},
      {"channel 2",
       1,
       {{TableType::kBat, 7}, {TableType::kPmt, 0}},
       {{1, 0x02, 0}, {1, 0x4A, 7}, {1, 0x01, 222}}},
      {"channel 2, CAT",
       1,
       {{TableType::kCat, 65535}, {TableType::kBat, 7}},
       {{1, 0x4A, 7}, {1, 0x01, 65535}}},
  };
  for (const Row& row : rows) {
    FakeCard card;
    card.ports[1].interval[7] = 222;
    FakeLink link(card);
    setIntervals(link, {0, row.port}, row.intervals);
    Writes writes;
    for (const Request& r : card.log) {
      EXPECT_EQ(r.variable, 0x3201) << row.what;
      if (r.operation == Operation::kWrite) writes.emplace_back(r.port, r.data[0], wire::get32(&r.data[4]));
    }
    EXPECT_EQ(writes, row.writes) << row.what;
    EXPECT_EQ(card.saves, 1) << row.what;
    EXPECT_EQ(card.saved[row.port].interval, card.ports[row.port].interval) << row.what;
  }
}

// Positions 0 to 261 can be asked for; and maps only where the PAT tells their PID.
TEST(ReadBack, CountsWhatIsOutOfReach) {
  struct Row {
    const char* what;
    int type;
    u16 pid;
    std::size_t stored;
    std::size_t read;
  };
  const Row rows[] = {
      {"nothing", 2, 0x11, 0, 0},
      {"one request", 2, 0x11, 7, 7},
      {"one packet more", 2, 0x11, 8, 8},
      {"up to the last start", 2, 0x11, 256, 256},
      {"as far as it goes", 2, 0x11, 262, 262},
      {"one packet beyond", 2, 0x11, 263, 262},
      {"a full store", 3, 0x11, 512, 262},
      {"a map that no PAT names", 1, 0x300, 4, 0},
  };
  for (const Row& row : rows) {
    FakeCard card;
    FakeLink link(card);
    for (std::size_t i = 0; i < row.stored; ++i) {
      FakeCard::Entry e{.pid = row.pid, .type = row.type, .packet = {}};
      e.packet[100] = static_cast<u8>(i);
      card.ports[0].store.push_back(e);
    }
    const ReadBack tables = readBack(link, {0, 0});
    EXPECT_EQ(tables.read(), row.read) << row.what;
    EXPECT_EQ(tables.outOfReach(), row.stored - row.read) << row.what;
    for (const auto& pid : tables.tables[static_cast<std::size_t>(row.type)].pids) {
      for (std::size_t i = 0; i < pid.packets.size(); ++i)
        ASSERT_EQ(pid.packets[i][100], static_cast<u8>(i)) << row.what;
    }
  }
}

}  // namespace
}  // namespace client
