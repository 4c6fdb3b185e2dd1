// PSI tables and back-end variables, as management software reaches them: through the registered routines.
#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "tests/module/chassis.h"
#include "ts/qamBack.h"
#include "ts/qamIntr.h"

namespace test {
namespace {

constexpr u16 kLock = 0x3101, kPackets = 0x3102, kInterval = 0x3201;

Bytes word(u32 value) {
  Bytes bytes;
  put(bytes, value, 4);
  return bytes;
}

// A packet that a test can tell from others.
Bytes packet(u8 mark) {
  Bytes bytes(188, mark);
  bytes[0] = 0x47;
  return bytes;
}

Bytes packetRequest(u16 pid, u8 table, u32 start) {
  Bytes bytes;
  put(bytes, pid, 2);
  put(bytes, table, 1);
  put(bytes, 0xEE, 1);
  put(bytes, start, 4);
  return bytes;
}

// A record of packets, as written and as read back.
Bytes packets(u16 pid, u8 table, u32 total, u32 start, const Bytes& marks) {
  Bytes bytes;
  put(bytes, pid, 2);
  put(bytes, table, 1);
  put(bytes, 0, 1);
  put(bytes, total, 4);
  put(bytes, start, 4);
  put(bytes, static_cast<u32>(marks.size()), 1);
  put(bytes, 0, 3);
  for (const u8 mark : marks) {
    const Bytes one = packet(mark);
    bytes.insert(bytes.end(), one.begin(), one.end());
  }
  return bytes;
}

Bytes chunk(u16 pid, u8 table, const Bytes& marks) {
  return packets(pid, table, 0, 0, marks);
}

Bytes interval(u8 table, u32 ticks, u32 count) {
  Bytes bytes;
  put(bytes, u32{table} << 24, 4);
  put(bytes, ticks, 4);
  put(bytes, count, 4);
  return bytes;
}

struct Reply {
  int result;
  u16 length;
  Bytes data;
};

class BackEnd : public ModuleTest {
 protected:
  BackEnd() : para(*fake.start(0)) {}

  // The routines that the card registered for the variable; those of the first variable where there is none.
  const chassis::bc_var& variable(u16 id) const {
    const chassis::bc_var* row = fake.variables;
    while (row->vid != id && row->vid != 0) ++row;
    return row->vid == 0 ? *fake.variables : *row;
  }

  Reply read(u16 id, u16 cardNo, u32 portNo, const Bytes& request, u16 reLength = 4) {
    struct {
      chassis::bc_vhdr_t header;
      u8 data[40];
    } frame{{id, cardNo, portNo, static_cast<u16>(request.size()), reLength, 0}, {}};
    std::copy(request.begin(), request.end(), frame.data + reLength - 4);
    Bytes reply(sizeof(set_psi_pkt), 0xEE);
    const int result = variable(id).vrd(&frame.header, reply.data());
    const u16 length = frame.header.vLength;
    if (result == 0) reply.resize(length);
    return {result, length, reply};
  }

  int write(u16 id, u16 cardNo, u32 portNo, const Bytes& data) {
    return write(id, cardNo, portNo, data, data.size());
  }
  int write(u16 id, u16 cardNo, u32 portNo, Bytes data, std::size_t length) {
    chassis::bc_vhdr_t header{id, cardNo, portNo, static_cast<u16>(length), 0, 0};
    data.resize(64 * 1024);
    return variable(id).vwr(&header, data.data());
  }

  void fillStore(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) para.psiPkt[0][i].pid = 0x100;
  }

  QamCardPara& para;
};

TEST_F(BackEnd, RequestsGetTheirResultCodes) {
  struct Row {
    const char* name;
    char operation;
    u16 id, cardNo;
    u32 portNo;
    int result;
    Bytes data;
    std::size_t length = 0;  // of a write, where it is not that of the data
  };
  const Bytes one = chunk(0x11, 0x42, {1});
  const Row rows[] = {
      {"slot 6", 'r', kLock, 6, 0, 18, {}},
      {"port 2", 'r', kLock, 0, 2, 18, {}},
      {"slot 255", 'w', kLock, 255, 0, 18, word(1)},
      {"port 255", 'w', kLock, 0, 0xFF, 18, word(1)},
      {"low bits of the slot", 'r', kLock, 0x106, 0, 18, {}},
      {"low bits of slot and port", 'r', kLock, 0xFF00, 0xFFFFFF01, 0, {}},
      {"empty slot", 'r', kLock, 3, 0, 21, {}},
      {"empty slot, write", 'w', kLock, 3, 1, 21, word(1)},
      {"slot before variable", 'r', 0x9999, 6, 0, 18, {}},
      {"card before variable", 'w', 0x9999, 1, 0, 21, {}},
      {"unknown variable", 'r', 0x2103, 0, 0, 2, {}},
      {"unknown variable, write", 'w', 0x3103, 0, 1, 2, word(0)},
      {"lock read too long", 'r', kLock, 0, 0, 22, word(0)},
      {"packets read too short", 'r', kPackets, 0, 0, 22, Bytes(7)},
      {"packets read too long", 'r', kPackets, 0, 0, 22, Bytes(9)},
      {"interval read too short", 'r', kInterval, 0, 0, 22, Bytes(3)},
      {"interval read too long", 'r', kInterval, 0, 0, 22, Bytes(12)},
      {"interval of no table", 'r', kInterval, 0, 0, 9, {0x70, 0, 0, 0}},
      {"lock too short", 'w', kLock, 0, 0, 22, word(1), 3},
      {"lock too long", 'w', kLock, 0, 0, 22, word(1), 5},
      {"chunk too short", 'w', kPackets, 0, 0, 22, one, 203},
      {"chunk too long", 'w', kPackets, 0, 0, 22, one, 205},
      {"chunk of other count", 'w', kPackets, 0, 0, 22, one, 16},
      {"chunk of no table", 'w', kPackets, 0, 0, 3, chunk(0x11, 0x70, {1, 2})},
      {"empty chunk of no table", 'w', kPackets, 0, 0, 0, chunk(0x11, 0x70, {})},
      {"interval too short", 'w', kInterval, 0, 0, 22, interval(0, 9, 0), 11},
      {"interval too long", 'w', kInterval, 0, 0, 22, interval(0, 9, 0), 13},
      {"interval write of no table", 'w', kInterval, 0, 1, 0, interval(0x70, 9, 0)},
      {"unlock without a lock", 'w', kLock, 0, 0, 0, word(0)},
  };
  const auto before = std::make_unique<QamCardPara>(para);
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    if (row.operation == 'w') {
      const std::size_t length = row.length != 0 ? row.length : row.data.size();
      EXPECT_EQ(write(row.id, row.cardNo, row.portNo, row.data, length), row.result);
    } else {
      const Reply reply = read(row.id, row.cardNo, row.portNo, row.data);
      EXPECT_EQ(reply.result, row.result);
      EXPECT_EQ(reply.length, row.result != 0 ? row.data.size() : 4) << "a refused request keeps its length";
    }
  }
  EXPECT_EQ(std::memcmp(before.get(), &para, sizeof para), 0) << "none of these changes the record";
  EXPECT_EQ(fake.log, Lines{});
  EXPECT_TRUE(fake.checks.empty());
}

TEST_F(BackEnd, ALockErasesAndHaltsAndAnUnlockSavesThenRebuildsThenRuns) {
  for (const u8 port : {u8{1}, u8{0}}) {
    SCOPED_TRACE(int{port});
    fake.log.clear();
    Lines steps;
    fake.onCall = [&](std::string_view call) {
      steps.push_back(fmt::format("{} lock {} halted {}", call, read(kLock, 0, port, {}).data[3],
                                  qam_is_setting_psi[0][port]));
    };
    std::fill_n(para.pktNum[port], 8, u16{9});
    std::memset(para.psiPkt[port], 0, sizeof para.psiPkt[port]);
    EXPECT_EQ(write(kLock, 0, port, word(0x80000000)), 0);
    EXPECT_EQ(read(kLock, 0, port, {}).data, word(1));
    EXPECT_EQ(read(kLock, 0, 1U - port, {}).data, word(0));
    EXPECT_TRUE(std::all_of(para.pktNum[port], para.pktNum[port] + 8, [](u16 n) { return n == 0; }));
    const u8* store = reinterpret_cast<const u8*>(para.psiPkt[port]);
    EXPECT_EQ(std::count(store, store + sizeof para.psiPkt[port], 0xFF), 512 * 192);

    EXPECT_EQ(write(kPackets, 0, port, chunk(0, 0, {0x40, 0x40})), 0);
    EXPECT_EQ(write(kLock, 0, port, word(1)), 0) << "locked already: nothing is erased";
    for (int i = 0; i < 10; ++i) qamIntr(0);
    EXPECT_TRUE(fake.queues[port]->messages.empty());
    EXPECT_EQ(steps, Lines{});

    EXPECT_EQ(write(kLock, 0, port, word(0)), 0);
    EXPECT_EQ(steps, (Lines{"save lock 0 halted 1", "malloc lock 0 halted 1", "malloc lock 0 halted 1"}));
    EXPECT_EQ(read(kLock, 0, port, {}).data, word(0));
    EXPECT_EQ(qam_is_setting_psi[0][port], 0);
    EXPECT_EQ(write(kLock, 0, port, word(0)), 0) << "unlocked already: nothing is saved";
    EXPECT_EQ(fake.log, Lines{"save 0"});

    for (int i = 0; i < 2 * port; ++i) qamIntr(0);
    EXPECT_TRUE(fake.queues[port]->messages.empty()) << "the countdowns start anew";
    qamIntr(0);
    EXPECT_EQ(fake.queues[port]->messages, std::vector<u32>{0});
  }
}

TEST_F(BackEnd, ChunksFillTheStoreInOrderWithTheTypeOfTheirTable) {
  struct Row {
    u8 table, type;
  };
  write(kLock, 0, 1, word(1));
  std::size_t at = 0;
  for (const auto& [table, type] :
       {Row{0x42, 2}, {0x00, 0}, {0x01, 7}, {0x02, 1}, {0x40, 4}, {0x41, 5}, {0x46, 3}, {0x4A, 6}}) {
    SCOPED_TRACE(int{table});
    EXPECT_EQ(write(kPackets, 0, 1, chunk(0x1234, table, {1, 2, 3, 4, 5, 6, table})), 0);
    EXPECT_EQ(para.pktNum[1][type], 7);
    for (const u8 mark : {u8{1}, u8{2}, u8{3}, u8{4}, u8{5}, u8{6}, table}) {
      const outPsiPkt_t& stored = para.psiPkt[1][at++];
      EXPECT_TRUE(stored.pid == 0x1234 && stored.psiType == type && stored.counter == 0xFF) << at;
      EXPECT_EQ(Bytes(stored.psiData, stored.psiData + 188), packet(mark)) << at;
    }
  }
  EXPECT_EQ(para.psiPkt[1][at].pid, 0xFFFF);
  EXPECT_EQ(para.psiPkt[0][0].pid, 0xFFFF) << "the other channel's store";
}

TEST_F(BackEnd, AChunkMayHoldMoreThanSevenPackets) {
  Bytes marks(250);
  for (std::size_t i = 0; i < marks.size(); ++i) marks[i] = static_cast<u8>(i);
  EXPECT_EQ(write(kPackets, 0, 0, chunk(0x11, 0x42, marks)), 0);
  EXPECT_EQ(para.pktNum[0][SDT_C], 250);
  EXPECT_EQ(para.psiPkt[0][249].psiData[187], 249);
}

TEST_F(BackEnd, AFullStoreTakesWhatFits) {
  fillStore(510);
  EXPECT_EQ(write(kPackets, 0, 0, chunk(0, 0, {1, 2, 3, 4})), 1);
  EXPECT_EQ(para.pktNum[0][PAT], 2);
  EXPECT_EQ(para.psiPkt[0][511].psiData[1], 2);
  EXPECT_EQ(write(kPackets, 0, 0, chunk(0, 0x70, {1})), 1) << "full comes before unknown";
}

TEST_F(BackEnd, APidThatEndsInNineOnesIsAFreePlace) {
  for (const u16 pid : {u16{0x1FF}, u16{0x3FF}, u16{0x1FFF}, u16{0xFFFF}}) {
    para.psiPkt[0][1].pid = pid;
    fillStore(1);
    EXPECT_EQ(write(kPackets, 0, 0, chunk(0x2FF, 0x02, {1})), 0);
    EXPECT_EQ(para.psiPkt[0][1].pid, 0x2FF) << pid;
    EXPECT_EQ(para.psiPkt[0][2].pid, 0xFFFF);
  }
  EXPECT_EQ(write(kPackets, 0, 0, chunk(0x0FF, 0x02, {1})), 0);
  EXPECT_EQ(para.psiPkt[0][2].pid, 0x0FF) << "0x2FF is taken";
}

TEST_F(BackEnd, CountsStandOnThePidOfTheirTable) {
  struct Row {
    u8 table, type;
    u16 pid;
    const char* check;
  };
  for (u16 type = 0; type < 8; ++type) para.pktNum[1][type] = static_cast<u16>(300 + type);
  for (const auto& [table, type, pid, check] : {Row{0x00, PAT, 0, "pid == 0"},
                                                {0x01, CAT, 1, "pid == 1"},
                                                {0x40, NIT_C, 0x10, "pid == 0x10"},
                                                {0x41, NIT_O, 0x10, "pid == 0x10"},
                                                {0x42, SDT_C, 0x11, "pid == 0x11"},
                                                {0x46, SDT_O, 0x11, "pid == 0x11"},
                                                {0x4A, BAT, 0x11, "pid == 0x11"}}) {
    SCOPED_TRACE(int{table});
    fake.checks.clear();
    EXPECT_EQ(QamGetPsiPktNumSamePidTid(1, pid, table, &para), 300 + type);
    EXPECT_TRUE(fake.checks.empty());
    EXPECT_EQ(QamGetPsiPktNumSamePidTid(1, 5, table, &para), 300 + type) << "a failed check goes on";
    ASSERT_EQ(fake.checks.size(), 1U);
    EXPECT_EQ(fake.checks[0].text, check);
    EXPECT_EQ(fake.checks[0].unit, "qamBack");
  }
  for (const u8 table : Bytes{0x03, 0x43, 0x70, 0xFF})
    EXPECT_EQ(QamGetPsiPktNumSamePidTid(1, 5, table, &para), 0);
}

TEST_F(BackEnd, PmtIsCountedOnItsPidUpToTheEndOfTheStore) {
  struct Row {
    const char* name;
    std::vector<std::pair<u16, u8>> store;
    u16 pid, count;
  };
  const Row rows[] = {{"its PID only", {{0x100, 1}, {0x101, 1}, {0x100, 0}, {0x100, 1}}, 0x100, 2},
                      {"up to an erased PID", {{0x100, 1}, {0xFFFF, 1}, {0x100, 1}}, 0x100, 1},
                      {"up to an erased type", {{0x100, 1}, {0x101, 0xFF}, {0x100, 1}}, 0x100, 1},
                      {"past a null packet", {{0x1FFF, 1}, {0x100, 1}}, 0x100, 1},
                      {"the last one too", {{0xFFFF, 1}, {0xFFFF, 1}}, 0xFFFF, 1}};
  for (const Row& row : rows) {
    qam_set_default_psipkt(0, 0, &para);
    for (std::size_t i = 0; i < row.store.size(); ++i) {
      para.psiPkt[0][i].pid = row.store[i].first;
      para.psiPkt[0][i].psiType = row.store[i].second;
    }
    EXPECT_EQ(QamGetPsiPktNumSamePidTid(0, row.pid, 0x02, &para), row.count) << row.name;
  }
  for (outPsiPkt_t& stored : para.psiPkt[0])
    stored = {.pid = 0x100, .psiType = PMT, .counter = 0, .psiData = {}};
  EXPECT_EQ(QamGetPsiPktNumSamePidTid(0, 0x100, 0x02, &para), 512);
}

TEST_F(BackEnd, ReadsGiveThePacketsAskedFor) {
  write(kLock, 0, 0, word(1));
  write(kPackets, 0, 0, chunk(0x100, 0x02, {1, 2, 3, 4, 5}));
  write(kPackets, 0, 0, chunk(0, 0x00, {20, 21, 22}));
  write(kPackets, 0, 0, chunk(0x200, 0x02, {30}));
  write(kPackets, 0, 0, chunk(0x100, 0x02, {6, 7, 8, 9}));
  struct Row {
    u16 pid;
    u8 table;
    u32 start, total;
    Bytes marks;
  };
  const Row rows[] = {{0, 0x00, 0, 3, {20, 21, 22}},
                      {0, 0x00, 1, 3, {21, 22}},
                      {0, 0x00, 0x100, 3, {20, 21, 22}},
                      {0, 0x00, 3, 3, {}},
                      {0, 0x00, 4, 3, {}},
                      {0x100, 0x02, 0, 9, {1, 2, 3, 4, 5, 6, 7}},
                      {0x100, 0x02, 1, 9, {2, 3, 4, 5, 6, 7, 8}},
                      {0x100, 0x02, 0xFFFFFF07, 9, {8, 9}},
                      {0x200, 0x02, 0, 1, {30}},
                      {0x300, 0x02, 0, 0, {}},
                      {0x11, 0x42, 0, 0, {}},
                      {0, 0x70, 2, 0, {}}};
  for (const Row& row : rows) {
    SCOPED_TRACE(fmt::format("PID {:#x} table {:#x} from {:#x}", row.pid, row.table, row.start));
    for (const u16 reLength : {u16{4}, u16{23}}) {
      const Reply reply = read(kPackets, 0, 0, packetRequest(row.pid, row.table, row.start), reLength);
      EXPECT_EQ(reply.result, 0);
      EXPECT_EQ(reply.length, 16 + 188 * row.marks.size());
      EXPECT_EQ(reply.data, packets(row.pid, row.table, row.total, row.start & 0xFF, row.marks));
    }
  }
  EXPECT_TRUE(fake.checks.empty());
}

TEST_F(BackEnd, NothingStaleTravelsWhereTheStoreHasFewerPacketsThanTheCount) {
  para.pktNum[0][PAT] = 2;
  const Reply reply = read(kPackets, 0, 0, packetRequest(0, 0x00, 0));
  ASSERT_EQ(reply.data.size(), 16U + 2 * 188);
  EXPECT_TRUE(std::all_of(reply.data.begin() + 16, reply.data.end(), [](u8 byte) { return byte == 0; }));
}

TEST_F(BackEnd, IntervalsAreKeptToSixteenBitsAndSavedByTheLastOne) {
  struct Row {
    u8 port, table, type;
    bool saves;
  };
  for (const auto& [port, table, type, saves] : {Row{0, 0x01, CAT, false},
                                                 {1, 0x01, CAT, true},
                                                 {1, 0x00, PAT, false},
                                                 {0, 0x46, SDT_O, false},
                                                 {1, 0x70, 8, false}}) {
    SCOPED_TRACE(fmt::format("port {} table {:#x}", port, table));
    fake.log.clear();
    const auto expected = std::make_unique<QamCardPara>(para);
    if (type < 8) expected->Interval[port][type] = 100;
    EXPECT_EQ(write(kInterval, 0, port, interval(table, 0x00010064, 7)), 0);
    EXPECT_EQ(std::memcmp(expected.get(), &para, sizeof para), 0);
    EXPECT_EQ(fake.log, saves ? Lines{"save 0"} : Lines{});
    para.pktNum[port][type % 8] = static_cast<u16>(0x0201 + type);
    const Reply reply = read(kInterval, 0, port, {table, 0xEE, 0xEE, 0xEE});
    EXPECT_TRUE(type == 8 || reply.data == interval(table, 100, 0x0201U + type));
  }
}

}  // namespace
}  // namespace test
