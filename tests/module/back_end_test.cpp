// PSI tables and intervals, uploaded and read back by management software.
#include <fmt/format.h>

#include <cstring>

#include "tests/module/back_end.h"
#include "ts/qamBack.h"
#include "ts/qamIntr.h"

namespace test {
namespace {

constexpr u16 kMapLock = 0x2101, kMapChunk = 0x2102, kLock = 0x3101, kPackets = 0x3102, kInterval = 0x3201;
constexpr u8 kPat = 0x00, kPmt = 0x02, kSdt = 0x42, kNoTable = 0x70;

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

class BackEnd : public BackEndTest {
 protected:
  void fillStore(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) para.psiPkt[0][i].pid = 0x100;
  }
};

TEST_F(BackEnd, RequestsGetTheirResultCodesAndChangeNothing) {
  struct Row {
    const char* name;
    char operation;
    u16 id, card;
    u32 port;
    int result;
    Bytes data = {};
    std::optional<u16> length = {};  // of a write, where it is not that of the data
  };
  const Row rows[] = {
      {"slot 6", 'r', kLock, 6, 0, 18},
      {"port 2", 'r', kLock, 0, 2, 18},
      {"slot 6, write", 'w', kLock, 6, 0, 18, word(1)},
      {"low bits of slot and port", 'r', kLock, 0xFF00, 0xFFFFFF01, 0},
      {"empty slot", 'r', kLock, 3, 0, 21},
      {"slot before variable", 'r', 0x9999, 6, 0, 18},
      {"card before variable", 'w', 0x9999, 1, 0, 21},
      {"unknown variable", 'r', 0x2103, 0, 0, 2},
      {"unknown variable, write", 'w', 0x3103, 0, 1, 2, word(0)},
      {"interval of no table", 'r', kInterval, 0, 0, 9, {kNoTable, 0, 0, 0}},
      {"chunk of other count", 'w', kPackets, 0, 0, 22, chunk(0x11, kSdt, {1}), 16},
      {"chunk of no table", 'w', kPackets, 0, 0, 3, chunk(0x11, kNoTable, {1, 2})},
      {"empty chunk of no table", 'w', kPackets, 0, 0, 0, chunk(0x11, kNoTable, {})},
      {"interval write of no table", 'w', kInterval, 0, 1, 0, interval(kNoTable, 9, 0)},
      {"unlock without a lock", 'w', kLock, 0, 0, 0, word(0)},
  };
  const auto before = std::make_unique<QamCardPara>(para);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.operation == 'w') {
      EXPECT_EQ(write(row.id, row.data, row.port, row.card, row.length), row.result);
    } else {
      const Reply reply = read(row.id, row.data, row.port, row.card);
      EXPECT_EQ(reply.result, row.result);
      EXPECT_EQ(reply.data.size(), row.result != 0 ? row.data.size() : 4) << "refused: keeps its length";
    }
  }
  for (const auto& [id, readLength, writeLength] : {std::tuple<u16, std::size_t, std::size_t>{kMapLock, 0, 4},
                                                    {kMapChunk, 4, 12},
                                                    {kLock, 0, 4},
                                                    {kPackets, 8, 16},
                                                    {kInterval, 4, 12}}) {
    EXPECT_EQ(read(id, Bytes(readLength + 1)).result, 22) << id;
    EXPECT_TRUE(readLength == 0 || read(id, Bytes(readLength - 1)).result == 22) << id;
    EXPECT_EQ(write(id, Bytes(writeLength + 1)), 22) << id;
    EXPECT_EQ(write(id, Bytes(writeLength - 1)), 22) << id;
  }
  EXPECT_EQ(std::memcmp(before.get(), &para, sizeof para), 0);
  EXPECT_EQ(fake.log, Lines{});
}

TEST_F(BackEnd, ALockErasesAndHaltsAndAnUnlockSavesThenRebuildsThenRuns) {
  for (const u8 port : {u8{1}, u8{0}}) {
    SCOPED_TRACE(int{port});
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
    for (int i = 0; i < 2 * port; ++i) qamIntr(0);
    EXPECT_TRUE(fake.queues[port]->messages.empty()) << "the countdowns start anew";
    qamIntr(0);
    EXPECT_EQ(fake.queues[port]->messages, std::vector<u32>{0});
  }
  EXPECT_EQ(fake.log, (Lines{"save 0", "save 0"}));
}

TEST_F(BackEnd, ChunksFillTheStoreInOrderAndAreCountedByTable) {
  struct Row {
    u8 table, type;
    u16 pid;       // where the table belongs
    Lines checks;  // that fail where it is counted on another
  };
  constexpr u16 kUploadedOn = 0x1234;
  std::size_t at = 0;
  for (const Row& row : {Row{kSdt, SDT_C, 0x11, {"qamBack: pid == 0x11"}},
                         {kPat, PAT, 0, {"qamBack: pid == 0"}},
                         {0x01, CAT, 1, {"qamBack: pid == 1"}},
                         {kPmt, PMT, kUploadedOn, {}},
                         {0x40, NIT_C, 0x10, {"qamBack: pid == 0x10"}},
                         {0x41, NIT_O, 0x10, {"qamBack: pid == 0x10"}},
                         {0x46, SDT_O, 0x11, {"qamBack: pid == 0x11"}},
                         {0x4A, BAT, 0x11, {"qamBack: pid == 0x11"}}}) {
    SCOPED_TRACE(fmt::format("table {:#x}", row.table));
    fake.forget();
    Bytes marks;
    for (u8 mark = 0; mark <= row.type; ++mark) marks.push_back(static_cast<u8>(row.table + mark));
    EXPECT_EQ(write(kPackets, chunk(kUploadedOn, row.table, marks), 1), 0);
    EXPECT_EQ(para.pktNum[1][row.type], marks.size());
    for (const u8 mark : marks) {
      const outPsiPkt_t& stored = para.psiPkt[1][at++];
      EXPECT_TRUE(stored.pid == kUploadedOn && stored.psiType == row.type && stored.counter == 0xFF) << at;
      EXPECT_EQ(Bytes(stored.psiData, stored.psiData + 188), packet(mark)) << at;
    }
    EXPECT_EQ(QamGetPsiPktNumSamePidTid(1, row.pid, row.table, &para), marks.size());
    EXPECT_EQ(fake.checks, Lines{});
    const u16 onAnother = QamGetPsiPktNumSamePidTid(1, 5, row.table, &para);
    EXPECT_EQ(onAnother, row.type == PMT ? 0 : marks.size()) << "a failed check goes on";
    EXPECT_EQ(fake.checks, row.checks);
  }
  EXPECT_EQ(para.psiPkt[1][at].pid, 0xFFFF);
  EXPECT_EQ(para.psiPkt[0][0].pid, 0xFFFF) << "the other channel's store";
  EXPECT_EQ(QamGetPsiPktNumSamePidTid(1, 5, kNoTable, &para), 0);
}

TEST_F(BackEnd, AFullStoreTakesWhatFitsOfAChunkOfAnyLength) {
  fillStore(262);
  Bytes marks(255);
  for (std::size_t i = 0; i < marks.size(); ++i) marks[i] = static_cast<u8>(i);
  EXPECT_EQ(write(kPackets, chunk(0x11, kSdt, marks)), 1);
  EXPECT_EQ(para.pktNum[0][SDT_C], 250);
  EXPECT_EQ(para.psiPkt[0][511].psiData[187], 249);
  EXPECT_EQ(write(kPackets, chunk(0, kNoTable, {1})), 1) << "full comes before unknown";
}

TEST_F(BackEnd, APidThatEndsInNineOnesIsAFreePlace) {
  fillStore(1);
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
  struct Row {
    const char* name;
    std::vector<std::pair<u16, u8>> store;  // PIDs and types
    u16 pid, count;
  };
  const Row rows[] = {{"its PID only", {{0x100, 1}, {0x101, 1}, {0x100, 0}, {0x100, 1}}, 0x100, 2},
                      {"up to an erased PID", {{0x100, 1}, {0xFFFF, 1}, {0x100, 1}}, 0x100, 1},
                      {"up to an erased type", {{0x100, 1}, {0x101, 0xFF}, {0x100, 1}}, 0x100, 1},
                      {"the last one too", {{0x1FFF, 1}, {0xFFFF, 1}, {0xFFFF, 1}}, 0xFFFF, 1},
                      {"a full store", {512, {0x100, 1}}, 0x100, 512}};
  for (const Row& row : rows) {
    qam_set_default_psipkt(0, 0, &para);
    for (std::size_t i = 0; i < row.store.size(); ++i) {
      para.psiPkt[0][i].pid = row.store[i].first;
      para.psiPkt[0][i].psiType = row.store[i].second;
    }
    EXPECT_EQ(QamGetPsiPktNumSamePidTid(0, row.pid, kPmt, &para), row.count) << row.name;
  }
}

TEST_F(BackEnd, ReadsGiveThePacketsAskedFor) {
  write(kPackets, chunk(0x100, kPmt, {1, 2, 3, 4, 5}));
  write(kPackets, chunk(0, kPat, {20, 21, 22}));
  write(kPackets, chunk(0x200, kPmt, {30}));
  write(kPackets, chunk(0x100, kPmt, {6, 7, 8, 9}));
  struct Row {
    u16 pid;
    u8 table;
    u32 start, total;
    Bytes marks;
  };
  const Row rows[] = {{0, kPat, 0x101, 3, {21, 22}},
                      {0, kPat, 3, 3, {}},
                      {0, kPat, 4, 3, {}},
                      {0x100, kPmt, 1, 9, {2, 3, 4, 5, 6, 7, 8}},
                      {0x100, kPmt, 0xFFFFFF07, 9, {8, 9}},
                      {0x200, kPmt, 0, 1, {30}},
                      {0x300, kPmt, 0, 0, {}},
                      {0, kNoTable, 2, 0, {}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(fmt::format("PID {:#x} table {:#x} from {:#x}", row.pid, row.table, row.start));
    const Bytes request = fields({{row.pid, 2}, {row.table, 1}, {0xEE, 1}, {row.start, 4}});
    const Reply reply = read(kPackets, request, 0, 0, 23);
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(reply.data, chunk(row.pid, row.table, row.marks, row.total, row.start & 0xFF));
  }
  para.pktNum[0][PAT] = 5;
  const Bytes data = read(kPackets, Bytes(8)).data;
  ASSERT_EQ(data.size(), 16U + 5 * 188);
  EXPECT_EQ(std::count(data.end() - 2 * 188, data.end(), 0), 2 * 188) << "nothing stale where some lack";
}

TEST_F(BackEnd, IntervalsAreKeptToSixteenBitsAndSavedByTheLastOne) {
  struct Row {
    u8 port, table, type;
    Lines log = {};
  };
  for (const Row& row : {Row{0, 0x01, CAT}, {1, 0x01, CAT, {"save 0"}}, {1, kPat, PAT}}) {
    SCOPED_TRACE(fmt::format("port {} table {:#x}", row.port, row.table));
    fake.forget();
    const auto expected = std::make_unique<QamCardPara>(para);
    expected->Interval[row.port][row.type] = 100;
    EXPECT_EQ(write(kInterval, interval(row.table, 0x00010064, 7), row.port), 0);
    EXPECT_EQ(std::memcmp(expected.get(), &para, sizeof para), 0);
    EXPECT_EQ(fake.log, row.log);
    para.pktNum[row.port][row.type] = static_cast<u16>(0x0201 + row.type);
    EXPECT_EQ(read(kInterval, {row.table, 0xEE, 0xEE, 0xEE}, row.port).data,
              interval(row.table, 100, 0x0201U + row.type));
  }
}

}  // namespace
}  // namespace test
