// The card's back-end variables, PID maps and PSI tables, as management software reaches them; and the PID
// search.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "platform/address_word.h"
#include "tests/module/chassis.h"
#include "ts/qamBack.h"
#include "ts/qamIntr.h"
#include "ts/qamPidMap.h"
#include "ts/qamPsi.h"

namespace test {
namespace {

constexpr u16 kMapLock = 0x2101, kMapChunk = 0x2102, kLock = 0x3101, kPackets = 0x3102, kInterval = 0x3201;
constexpr u8 kPat = 0x00, kPmt = 0x02, kSdt = 0x42, kNoTable = 0x70;

// Big-endian numbers, each with its width in bytes.
Bytes fields(std::initializer_list<std::pair<u32, int>> numbers) {
  Bytes bytes;
  for (auto [value, width] : numbers) {
    while (width-- > 0) bytes.push_back(static_cast<u8>(value >> 8 * width));
  }
  return bytes;
}
Bytes word(u32 value) {
  return fields({{value, 4}});
}

// Source cards with two inputs stand in slots 1 and 3, and with sixteen in slot 5.
class BackEnd : public ModuleTest {
 protected:
  struct Reply {
    int result;
    Bytes data;  // as long as the header's length
  };

  BackEnd() {
    for (int i = 0; i < 3; ++i) {
      sources_[i].slotNo = static_cast<u8>(1 + 2 * i);
      sources_[i].in_port_num = i == 1 ? 2 : i == 0 ? 17 : 16;
      sources_[i].varPtr = &para;
      chassis::cardInsert(&sources_[i]);
    }
    fake.forget();
  }

  // The request's data is `reLength` - 4 bytes after its header.
  static Reply read(u16 id, const Bytes& data = {}, u32 port = 0, u16 card = 0, u16 reLength = 4) {
    struct {
      chassis::bc_vhdr_t header;
      u8 data[40];
    } request{{id, card, port, static_cast<u16>(data.size()), reLength, 0}, {}};
    std::copy(data.begin(), data.end(), request.data + reLength - 4);
    Bytes reply(kReplyBufferSize, 0xEE);
    const int result = qam_ord(&request.header, reply.data());
    reply.resize(request.header.vLength);
    return {result, reply};
  }

  // `length` if it differs from that of the data.
  static int write(u16 id, Bytes data, u32 port = 0, u16 card = 0, std::optional<u16> length = {}) {
    chassis::bc_vhdr_t header{id, card, port, length.value_or(static_cast<u16>(data.size())), 0, 0};
    data.resize(64 * 1024);
    return qam_owr(&header, data.data());
  }

  QamCardPara& para = *fake.start(0);

 private:
  chassis::card sources_[3] = {};
};

// ---- PSI tables ----

// A packet that a test can tell from others.
Bytes packet(u8 mark) {
  Bytes bytes(188, mark);
  bytes[0] = 0x47;
  return bytes;
}

// A record of packets, as written and as read back.
Bytes chunk(u16 pid, u8 table, const Bytes& marks, u32 total = 0, u32 start = 0) {
  const auto count = static_cast<u32>(marks.size());
  Bytes bytes = fields({{pid, 2}, {table, 1}, {0, 1}, {total, 4}, {start, 4}, {count, 1}, {0, 3}});
  for (const u8 mark : marks) bytes = bytes + packet(mark);
  return bytes;
}

Bytes interval(u8 table, u32 ticks, u32 count) {
  return fields({{table, 1}, {0, 3}, {ticks, 4}, {count, 4}});
}

Bytes request(u16 pid, u8 table, u32 start) {
  return fields({{pid, 2}, {table, 1}, {0xEE, 1}, {start, 4}});
}

TEST_F(BackEnd, RequestsGetTheirResultCodesAndChangeNothing) {
  const auto before = std::make_unique<QamCardPara>(para);
  EXPECT_EQ(read(kLock, {}, 0, 6).result, 18) << "slot 6";
  EXPECT_EQ(read(kLock, {}, 2).result, 18) << "port 2";
  EXPECT_EQ(write(kLock, word(1), 0, 6), 18) << "slot 6";
  EXPECT_EQ(read(kLock, {}, 0xFFFFFF01, 0xFF00).data, word(0)) << "the low bits of slot and port";
  EXPECT_EQ(read(kLock, {}, 0, 4).result, 21) << "an empty slot";
  EXPECT_EQ(read(kLock, {}, 0, 3).result, 21) << "a card of another type";
  EXPECT_EQ(read(0x2103).result, 2);
  EXPECT_EQ(write(0x3103, word(0), 1), 2);
  EXPECT_EQ(TableidToPsiType(kNoTable), 255);
  const Reply noTable = read(kInterval, {kNoTable, 0, 0, 0});
  EXPECT_TRUE(noTable.result == 9 && noTable.data.size() == 4) << "refused: keeps its length";
  EXPECT_EQ(write(kPackets, chunk(0x11, kSdt, {1}), 0, 0, 16), 22) << "of another count";
  EXPECT_EQ(write(kPackets, chunk(0x11, kNoTable, {1, 2})), 3);
  EXPECT_EQ(write(kPackets, chunk(0x11, kNoTable, {})), 0);
  EXPECT_EQ(write(kInterval, interval(kNoTable, 9, 0), 1), 0);
  EXPECT_EQ(write(kLock, word(0)), 0) << "unlocked already";
  using Lengths = std::tuple<u16, std::size_t, std::size_t>;  // of a read's data and a write's
  for (const auto& [id, toRead, toWrite] :
       {Lengths{kMapLock, 0, 4}, {kMapChunk, 4, 12}, {kLock, 0, 4}, {kPackets, 8, 16}, {kInterval, 4, 12}}) {
    EXPECT_EQ(read(id, Bytes(toRead + 1)).result, 22) << id;
    EXPECT_TRUE(toRead == 0 || read(id, Bytes(toRead - 1)).result == 22) << id;
    EXPECT_TRUE(write(id, Bytes(toWrite + 1)) == 22 && write(id, Bytes(toWrite - 1)) == 22) << id;
  }
  EXPECT_EQ(std::memcmp(before.get(), &para, sizeof para), 0);
  EXPECT_EQ(fake.log, Lines{});
}

TEST_F(BackEnd, ALockErasesAndHaltsAndAnUnlockSavesThenRebuildsThenRuns) {
  for (const u8 port : {u8{1}, u8{0}}) {
    Lines steps;
    fake.onCall = [&](std::string_view call) {
      steps.push_back(fmt::format("{} lock {} halted {}", call, read(kLock, {}, port).data[3],
                                  qam_is_setting_psi[0][port]));
    };
    std::fill_n(para.pktNum[port], 8, u16{9});
    std::memset(para.psiPkt[port], 0, sizeof para.psiPkt[port]);
    EXPECT_EQ(write(kLock, word(0x80000000), port), 0);
    EXPECT_EQ(read(kLock, {}, port).data, word(1));
    EXPECT_EQ(read(kLock, {}, 1U - port).data, word(0));
    EXPECT_EQ(std::count(para.pktNum[port], para.pktNum[port] + 8, 0), 8);
    const u8* store = reinterpret_cast<const u8*>(para.psiPkt[port]);
    EXPECT_EQ(std::count(store, store + sizeof para.psiPkt[port], 0xFF), 512 * 192);

    EXPECT_EQ(write(kPackets, chunk(0, kPat, {0x40, 0x40}), port), 0);
    EXPECT_EQ(write(kLock, word(1), port), 0) << "locked already: nothing is erased";
    for (int i = 0; i < 10; ++i) qamIntr(0);
    EXPECT_TRUE(fake.queues[port]->messages.empty());
    EXPECT_EQ(steps, Lines{});

    EXPECT_EQ(write(kLock, word(0), port), 0);
    EXPECT_EQ(write(kLock, word(0), port), 0) << "unlocked already: nothing is saved";
    EXPECT_EQ(steps, (Lines{"save lock 0 halted 1", "malloc lock 0 halted 1", "malloc lock 0 halted 1"}));
    for (int i = 0; i <= 2 * port; ++i) qamIntr(0);
    EXPECT_EQ(fake.queues[port]->messages, std::vector<u32>{0});
  }
  EXPECT_EQ(fake.log, (Lines{"save 0", "save 0"}));
}

TEST_F(BackEnd, ChunksAreStoredAndCountedByTableOnThePidWhereItBelongs) {
  // By table_id: the type, the PID, and the check that fails on another one.
  using Row = std::tuple<u8, u8, u16, Lines>;
  const Row rows[] = {
      {kSdt, SDT_C, 0x11, {"qamBack: pid == 0x11"}}, {kPat, PAT, 0, {"qamBack: pid == 0"}},
      {0x01, CAT, 1, {"qamBack: pid == 1"}},         {kPmt, PMT, 0x1234, {}},
      {0x40, NIT_C, 0x10, {"qamBack: pid == 0x10"}}, {0x41, NIT_O, 0x10, {"qamBack: pid == 0x10"}},
      {0x46, SDT_O, 0x11, {"qamBack: pid == 0x11"}}, {0x4A, BAT, 0x11, {"qamBack: pid == 0x11"}}};
  for (const auto& [table, type, pid, check] : rows) {
    SCOPED_TRACE(fmt::format("table {:#x}", table));
    fake.forget();
    const Bytes marks(type % 7 + 1U, table);
    const auto count = static_cast<u16>(marks.size());
    EXPECT_EQ(write(kPackets, chunk(pid, table, marks), 1), 0);
    EXPECT_EQ(para.pktNum[1][type], count);
    EXPECT_EQ(read(kPackets, request(pid, table, 0), 1).data, chunk(pid, table, marks, count));
    EXPECT_EQ(fake.checks, Lines{});
    const u16 onAnother = QamGetPsiPktNumSamePidTid(1, 5, table, &para);
    EXPECT_EQ(onAnother, type == PMT ? 0 : count) << "a failed check goes on";
    EXPECT_EQ(fake.checks, check);
  }
  EXPECT_EQ(para.psiPkt[0][0].pid, 0xFFFF) << "the other channel's store";
  EXPECT_EQ(QamGetPsiPktNumSamePidTid(1, 5, kNoTable, &para), 0);
}

TEST_F(BackEnd, AFullStoreTakesWhatFitsOfAChunkOfAnyLength) {
  for (std::size_t i = 0; i < 262; ++i) para.psiPkt[0][i].pid = 0x100;
  Bytes marks(255);
  for (std::size_t i = 0; i < marks.size(); ++i) marks[i] = static_cast<u8>(i);
  EXPECT_EQ(write(kPackets, chunk(0x11, kSdt, marks)), 1);
  EXPECT_EQ(para.pktNum[0][SDT_C], 250);
  EXPECT_EQ(para.psiPkt[0][511].psiData[187], 249);
  EXPECT_EQ(write(kPackets, chunk(0, kNoTable, {1})), 1) << "full comes before unknown";
}

TEST_F(BackEnd, APidThatEndsInNineOnesIsAFreePlace) {
  para.psiPkt[0][0].pid = 0x100;
  for (const u16 pid : {u16{0x1FF}, u16{0x3FF}, u16{0xFFFF}}) {
    para.psiPkt[0][1].pid = pid;
    EXPECT_EQ(write(kPackets, chunk(0x2FF, kPmt, {1})), 0);
    EXPECT_EQ(para.psiPkt[0][1].pid, 0x2FF) << pid;
    EXPECT_EQ(para.psiPkt[0][2].pid, 0xFFFF);
  }
  EXPECT_EQ(write(kPackets, chunk(0x0FF, kPmt, {1})), 0);
  EXPECT_EQ(para.psiPkt[0][2].pid, 0x0FF) << "0x2FF is taken";
}

TEST_F(BackEnd, PmtIsCountedOnItsPidUpToTheEndOfTheStore) {
  const auto counted = [&](const std::vector<std::pair<u16, u8>>& store, u16 pid) {  // PIDs and types
    qam_set_default_psipkt(0, 0, &para);
    for (std::size_t i = 0; i < store.size(); ++i) {
      para.psiPkt[0][i].pid = store[i].first;
      para.psiPkt[0][i].psiType = store[i].second;
    }
    return QamGetPsiPktNumSamePidTid(0, pid, kPmt, &para);
  };
  EXPECT_EQ(counted({{0x100, 1}, {0x101, 1}, {0x100, 0}, {0x100, 1}}, 0x100), 2);
  EXPECT_EQ(counted({{0x100, 1}, {0xFFFF, 1}, {0x100, 1}}, 0x100), 1) << "up to an erased PID";
  EXPECT_EQ(counted({{0x100, 1}, {0x101, 0xFF}, {0x100, 1}}, 0x100), 1) << "up to an erased type";
  EXPECT_EQ(counted({{0x1FFF, 1}, {0xFFFF, 1}, {0xFFFF, 1}}, 0xFFFF), 1) << "the last one too";
  EXPECT_EQ(counted({512, {0x100, 1}}, 0x100), 512);
}

TEST_F(BackEnd, ReadsGiveThePacketsAskedFor) {
  write(kPackets, chunk(0x100, kPmt, {1, 2, 3, 4, 5}));
  write(kPackets, chunk(0, kPat, {20, 21, 22}));
  write(kPackets, chunk(0x200, kPmt, {30}));
  write(kPackets, chunk(0x100, kPmt, {6, 7, 8, 9}));
  const auto expectRead = [&](u16 pid, u8 table, u32 start, u32 total, const Bytes& marks) {
    const Reply reply = read(kPackets, request(pid, table, start), 0, 0, 23);
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.data, chunk(pid, table, marks, total, start & 0xFF)) << pid << " from " << start;
  };
  expectRead(0, kPat, 0x101, 3, {21, 22});
  expectRead(0, kPat, 3, 3, {});
  expectRead(0, kPat, 4, 3, {});
  expectRead(0x100, kPmt, 1, 9, {2, 3, 4, 5, 6, 7, 8});
  expectRead(0x100, kPmt, 0xFFFFFF07, 9, {8, 9});
  expectRead(0x200, kPmt, 0, 1, {30});
  expectRead(0x300, kPmt, 0, 0, {});
  expectRead(0, kNoTable, 2, 0, {});
  para.pktNum[0][PAT] = 5;
  const Bytes data = read(kPackets, Bytes(8)).data;
  ASSERT_EQ(data.size(), 16U + 5 * 188);
  EXPECT_EQ(std::count(data.end() - 2 * 188, data.end(), 0), 2 * 188) << "nothing stale where some lack";
}

TEST_F(BackEnd, IntervalsAreKeptToSixteenBitsAndSavedByTheLastOne) {
  const auto expectSet = [&](u8 port, u8 table, u8 type, const Lines& log) {
    fake.forget();
    const auto expected = std::make_unique<QamCardPara>(para);
    expected->Interval[port][type] = 100;
    EXPECT_EQ(write(kInterval, interval(table, 0x00010064, 7), port), 0);
    EXPECT_EQ(std::memcmp(expected.get(), &para, sizeof para), 0);
    EXPECT_EQ(fake.log, log);
    para.pktNum[port][type] = static_cast<u16>(0x0201 + type);
    EXPECT_EQ(read(kInterval, {table, 0xEE, 0xEE, 0xEE}, port).data, interval(table, 100, 0x0201U + type));
  };
  expectSet(0, 0x01, CAT, {});
  expectSet(1, 0x01, CAT, {"save 0"});
  expectSet(1, kPat, PAT, {});
}

// ---- PID maps ----

struct Entry {
  u16 slot;
  u32 port;
  u16 pid, out;
};

// Type and programme numbers follow from the PIDs, so that a swap of fields shows.
Bytes mapChunk(u32 total, u32 start, u32 count, const std::vector<Entry>& entries) {
  Bytes bytes = fields({{total, 4}, {start, 4}, {count, 4}});
  for (const Entry& e : entries) {
    bytes = bytes + fields({{e.slot, 2}, {e.pid & 0xFF, 2}, {e.port, 4}, {e.pid + 1U, 2}, {e.out + 2U, 2}});
    bytes = bytes + fields({{e.pid, 2}, {e.out, 2}});
  }
  return bytes;
}

std::array<u16, 3> routed(const Entry& e) {
  const std::uint64_t word = e.pid | std::uint64_t{e.port & 15U} << 13 | std::uint64_t{e.slot} << 17 |
                             std::uint64_t{1} << 21 | std::uint64_t{e.out} << 22;
  return {static_cast<u16>(word), static_cast<u16>(word >> 16), static_cast<u16>(word >> 32)};
}

std::vector<Entry> many(u16 first, u16 count) {
  std::vector<Entry> entries;
  for (u16 i = 0; i < count; ++i) entries.push_back({1, 0, static_cast<u16>(first + i), i});
  return entries;
}

TEST_F(BackEnd, AMapsLockEmptiesTheRecordAndTheUnlockSortsSavesAndRoutesIt) {
  const auto before = fake.routes;
  write(kMapLock, word(1));
  EXPECT_EQ(read(kMapLock).data, word(1));
  const std::vector<Entry> entries{{3, 0, 0x100, 0x1ABC}, {1, 1, 0x20, 0x222}, {1, 0, 0x1FFF, 7},
                                   {5, 15, 1, 2},         {1, 0, 2, 1},        {1, 0, 2, 2},
                                   {1, 0, 1, 9},          {1, 0, 2, 3},        {1, 0, 1, 8},
                                   {1, 16, 2, 4}};  // a port above four bits counts as a slot
  ASSERT_EQ(write(kMapChunk, mapChunk(10, 0, 10, entries)), 0);
  write(kMapLock, word(1));
  EXPECT_EQ(para.pidMapNum[0], 10U) << "locked already: nothing is emptied";
  EXPECT_EQ(fake.log, Lines{});
  EXPECT_EQ(fake.routes, before) << "the old map stays on the air";
  write(kMapLock, word(0));
  write(kMapLock, word(0));
  EXPECT_EQ(fake.log, (Lines{"save 0", "route 0 0"})) << "once";
  // The expected result of an exchange sort with equal keys; a stable sort would not change their order.
  std::vector<Entry> sorted;
  std::vector<std::array<u16, 3>> route;
  for (const std::size_t i : {6U, 8U, 4U, 7U, 5U, 9U, 2U, 1U, 0U, 3U}) {
    sorted.push_back(entries[i]);
    route.push_back(routed(entries[i]));
  }
  route.resize(256, {0xFFFF, 0x001F, 0});
  EXPECT_EQ((fake.routes[{0, 0}]), route);
  EXPECT_EQ(read(kMapChunk, word(0)).data, mapChunk(10, 0, 10, sorted));
  EXPECT_EQ(para.pidMap[0][0].reserved, 0xFF);
  EXPECT_EQ(QamSetPidMap(0, 0, &para), 0);

  fake.forget();
  for (const u32 lock : {1U, 0U}) write(kMapLock, word(lock), 1);
  EXPECT_EQ(para.pidMapNum[0], 10U);
  EXPECT_EQ(fake.log, (Lines{"save 0", "route 0 1", "save 0"}));
  write(kMapLock, word(1));
  const auto* bytes = reinterpret_cast<const u8*>(para.pidMap[0]);
  EXPECT_EQ(std::count(bytes, bytes + sizeof para.pidMap[0], 0xFF), 256 * 12);
  EXPECT_EQ(para.pidMapNum[0], 0U);
}

TEST_F(BackEnd, AMapsChunkIsStoredOrRefused) {
  using Outcome = std::pair<int, std::vector<u16>>;  // result, source PIDs of the map
  const auto outcome = [&](const Bytes& data, std::optional<u16> length = {}) {
    write(kMapLock, word(0));
    write(kMapLock, word(1));
    Outcome found{write(kMapChunk, data, 0, 0, length), {}};
    for (u32 i = 0; i < para.pidMapNum[0]; ++i) found.second.push_back(para.pidMap[0][i].src_pid);
    return found;
  };
  EXPECT_EQ(outcome(mapChunk(257, 0, 1, many(1, 1))), Outcome(1, {})) << "too long";
  EXPECT_EQ(outcome(mapChunk(256, 200, 89, many(1, 89))), Outcome(0, {})) << "past the total";
  EXPECT_EQ(outcome(mapChunk(256, 256, 0, {})), Outcome(0, {})) << "start past the end";
  EXPECT_EQ(outcome(mapChunk(3, 1, 1, many(7, 1))), Outcome(0, {0xFFFF, 7, 0xFFFF})) << "announced";
  EXPECT_EQ(outcome(mapChunk(2, 0, 2, {{1, 0, 7, 1}, {6, 0, 8, 1}})), Outcome(3, {7, 0xFFFF})) << "slot 6";
  EXPECT_EQ(outcome(mapChunk(1, 0, 1, {{0x101, 0, 8, 1}})), Outcome(3, {0xFFFF})) << "slot 256";
  EXPECT_EQ(outcome(mapChunk(2, 0, 2, {{1, 1, 7, 1}, {2, 0, 8, 1}})), Outcome(21, {7, 0xFFFF}))
      << "empty slot";
  EXPECT_EQ(outcome(mapChunk(1, 0, 1, {{3, 2, 8, 1}})), Outcome(3, {0xFFFF})) << "no third input";
  EXPECT_EQ(outcome(mapChunk(1, 0, 1, {{1, 0x100, 8, 1}})), Outcome(3, {0xFFFF})) << "input 256";
  EXPECT_EQ(outcome(mapChunk(3, 0, 3, many(1, 3)), 64), Outcome(22, {})) << "wrong length";
}

TEST_F(BackEnd, AFullMapGoesAndComesInChunksOf89) {
  write(kMapLock, word(1), 1);
  for (const auto& [start, count] : {std::pair<u16, u16>{0, 89}, {89, 89}, {178, 78}}) {
    const auto part = many(static_cast<u16>(0x300 + start), count);
    ASSERT_EQ(write(kMapChunk, mapChunk(256, start, count, part), 1), 0);
  }
  // A parameter file may give a larger count, which is read back and routed as 256.
  for (const u32 claimed : {256U, 257U}) {
    para.pidMapNum[1] = claimed;
    for (const auto& [start, count] : {std::pair<u16, u16>{0, 89}, {178, 78}, {256, 0}, {300, 0}}) {
      const auto part = many(static_cast<u16>(0x300 + start), count);
      EXPECT_EQ(read(kMapChunk, word(start), 1).data, mapChunk(256, start, count, part)) << start;
    }
  }
  QamSetPidMap(0, 1, &para);
  EXPECT_EQ((fake.routes[{0, 1}].size()), 256U);
  // A ninetieth entry exceeds the record of a chunk.
  write(kMapLock, word(1));
  ASSERT_EQ(write(kMapChunk, mapChunk(90, 0, 90, many(1, 90))), 0);
  EXPECT_EQ(para.pidMap[0][88].src_pid, 89);
  EXPECT_EQ(para.pidMap[0][89].src_pid, 0xFFFF);
}

TEST_F(BackEnd, SearchesKeepWhatTheyCapturedUntilAnotherBegins) {
  static u8 captured[188];
  captured[187] = 8;
  u8 found[188];
  EXPECT_EQ(qamGetTsPidResult(0, 0, found), -1) << "no queue yet";
  Queue queue;
  qamTsReadQID[3] = queue.handle();
  const auto keptBy = [&](u16 pid, u8 table, u8 on) {
    queue.messages.assign(2, os::addressWord(captured));
    EXPECT_EQ(qamSetTSPID(3, 1, pid, table, on), 0);
    const qamSearchPSI_t& search = qamSearchPSI[3];
    EXPECT_EQ(search.isSearch, on != 0 ? 1 : 0);
    EXPECT_TRUE(on == 0 || (search.pid == pid && search.tableId == table));
    return queue.messages.size();
  };
  EXPECT_EQ(keptBy(0x11, 0x42, 1), 0U);
  EXPECT_EQ(keptBy(0x11, 0x42, 1), 2U) << "the same";
  EXPECT_EQ(keptBy(0x11, 0x46, 1), 0U);
  EXPECT_EQ(keptBy(0x12, 0x46, 5), 0U);
  EXPECT_EQ(keptBy(0x12, 0x46, 0), 0U);
  EXPECT_EQ(keptBy(0x12, 0x46, 1), 0U) << "it was ended";
  queue.messages.assign(1, os::addressWord(captured));
  EXPECT_EQ(qamGetTsPidResult(3, 0, found), 0);
  EXPECT_EQ(found[187], 8);
  EXPECT_EQ(qamGetTsPidResult(3, 1, found), -1);
}

}  // namespace
}  // namespace test
