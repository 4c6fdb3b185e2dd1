// PID maps, through the registered variables, and the PID search.
#include <fmt/format.h>

#include "platform/address_word.h"
#include "tests/module/back_end.h"
#include "ts/qamBack.h"

namespace test {
namespace {

constexpr u16 kLock = 0x2101, kChunk = 0x2102;
constexpr u16 kUnset = 0xFFFF;

struct Entry {
  u16 slot;
  u32 port;
  u16 pid, out;
};

// Type and programme numbers follow from the PIDs, so that a swap of fields shows.
Bytes chunk(u32 total, u32 start, u32 count, const std::vector<Entry>& entries) {
  Bytes bytes = fields({{total, 4}, {start, 4}, {count, 4}});
  for (const Entry& e : entries) {
    bytes = bytes + fields({{e.slot, 2}, {e.pid & 0xFF, 2}, {e.port, 4}, {e.pid + 1U, 2}, {e.out + 2U, 2}});
    bytes = bytes + fields({{e.pid, 2}, {e.out, 2}});
  }
  return bytes;
}

std::array<u16, 3> routed(const Entry& e) {
  const std::uint64_t word = e.pid | std::uint64_t{e.port} << 13 | std::uint64_t{e.slot} << 17 |
                             std::uint64_t{1} << 21 | std::uint64_t{e.out} << 22;
  return {static_cast<u16>(word), static_cast<u16>(word >> 16), static_cast<u16>(word >> 32)};
}

std::vector<Entry> many(u16 first, u16 count) {
  std::vector<Entry> entries;
  for (u16 i = 0; i < count; ++i) entries.push_back({1, 0, static_cast<u16>(first + i), i});
  return entries;
}

// Source cards with two inputs in slots 1 and 3, and with sixteen in slot 5.
class PidMap : public BackEndTest {
 protected:
  PidMap() {
    for (int i = 0; i < 3; ++i) {
      sources[i].slotNo = static_cast<u8>(1 + 2 * i);
      sources[i].in_port_num = i == 2 ? 16 : 2;
      chassis::cardInsert(&sources[i]);
    }
    fake.forget();
  }
  std::vector<u16> pids(u32 port = 0) const {
    std::vector<u16> all;
    for (u32 i = 0; i < para.pidMapNum[port]; ++i) all.push_back(para.pidMap[port][i].src_pid);
    return all;
  }

  chassis::card sources[3] = {};
};

TEST_F(PidMap, ALockEmptiesTheRecordAndTheUnlockSortsSavesAndRoutesIt) {
  const auto before = fake.routes;
  write(kLock, word(1));
  EXPECT_EQ(read(kLock).data, word(1));
  const std::vector<Entry> entries{
      {3, 0, 0x100, 0x1ABC}, {1, 1, 0x20, 0x222}, {1, 0, 0x1FFF, 7}, {5, 15, 1, 2}};
  ASSERT_EQ(write(kChunk, chunk(4, 0, 4, entries)), 0);
  write(kLock, word(1));
  EXPECT_EQ(pids(), (std::vector<u16>{0x100, 0x20, 0x1FFF, 1})) << "locked already: nothing is emptied";
  EXPECT_EQ(fake.log, Lines{});
  EXPECT_EQ(fake.routes, before) << "the old map stays on the air";
  write(kLock, word(0));
  EXPECT_EQ(fake.log, (Lines{"save 0", "route 0 0"}));
  const std::vector<Entry> sorted{entries[2], entries[1], entries[0], entries[3]};
  std::vector<std::array<u16, 3>> route(256, {0xFFFF, 0x001F, 0});
  std::transform(sorted.begin(), sorted.end(), route.begin(), routed);
  EXPECT_EQ((fake.routes[{0, 0}]), route);
  EXPECT_EQ(read(kChunk, word(0)).data, chunk(4, 0, 4, sorted));
  EXPECT_EQ(para.pidMap[0][0].reserved, 0xFF);

  fake.forget();
  write(kLock, word(0));
  EXPECT_EQ(fake.log, Lines{}) << "an unlock without a lock";
  write(kLock, word(1), 1);
  EXPECT_EQ(pids().size(), 4U);
  write(kLock, word(0), 1);
  EXPECT_EQ(fake.log, (Lines{"save 0", "route 0 1", "save 0"}));
  write(kLock, word(1));
  const auto* bytes = reinterpret_cast<const u8*>(para.pidMap[0]);
  EXPECT_EQ(std::count(bytes, bytes + sizeof para.pidMap[0], 0xFF), 256 * 12);
  EXPECT_EQ(para.pidMapNum[0], 0U);
}

// What an exchange sort makes of these keys, by hand; a stable sort would end 1, 2, 3.
TEST_F(PidMap, EqualKeysEndAsTheExchangesLeaveThem) {
  write(kLock, word(1));
  write(kChunk, chunk(5, 0, 5, {{1, 0, 2, 1}, {1, 0, 2, 2}, {1, 0, 1, 9}, {1, 0, 2, 3}, {1, 0, 1, 8}}));
  write(kLock, word(0));
  std::array<u16, 5> out{};
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = para.pidMap[0][i].dst_pid;
  EXPECT_EQ(out, (std::array<u16, 5>{9, 8, 1, 3, 2}));
}

TEST_F(PidMap, AChunkIsStoredOrRefused) {
  struct Row {
    const char* name;
    Bytes data;
    int result;
    std::vector<u16> stored;  // source PIDs
    std::optional<u16> length = {};
  };
  const Row rows[] = {
      {"too long", chunk(257, 0, 1, many(1, 1)), 1, {}},
      {"past the total", chunk(256, 200, 89, many(1, 89)), 0, {}},
      {"start past the end", chunk(256, 256, 0, {}), 0, {}},
      {"announced", chunk(3, 1, 1, many(7, 1)), 0, {kUnset, 7, kUnset}},
      {"no slot 6", chunk(3, 0, 3, {{1, 0, 7, 1}, {6, 0, 8, 1}, {1, 0, 9, 1}}), 3, {7, kUnset, kUnset}},
      {"slot of 256", chunk(1, 0, 1, {{0x101, 0, 8, 1}}), 3, {kUnset}},
      {"empty slot", chunk(2, 0, 2, {{1, 1, 7, 1}, {2, 0, 8, 1}}), 21, {7, kUnset}},
      {"no third input", chunk(1, 0, 1, {{1, 2, 8, 1}}), 3, {kUnset}},
      {"input of 256", chunk(1, 0, 1, {{1, 0x100, 8, 1}}), 3, {kUnset}},
      {"wrong length", chunk(3, 0, 3, many(1, 3)), 22, {}, 64},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    write(kLock, word(0));
    write(kLock, word(1));
    EXPECT_EQ(write(kChunk, row.data, 0, 0, row.length), row.result);
    EXPECT_EQ(pids(), row.stored);
  }
}

TEST_F(PidMap, AFullMapGoesAndComesInChunksOf89) {
  write(kLock, word(1), 1);
  for (const auto& [start, count] : {std::pair<u16, u16>{0, 89}, {89, 89}, {178, 78}}) {
    const auto part = many(static_cast<u16>(0x300 + start), count);
    ASSERT_EQ(write(kChunk, chunk(256, start, count, part), 1), 0);
  }
  // A parameter file may claim more, which is read back and routed as 256.
  for (const u32 claimed : {256U, 257U}) {
    para.pidMapNum[1] = claimed;
    for (const auto& [start, count] : {std::pair<u16, u16>{0, 89}, {178, 78}, {256, 0}, {300, 0}}) {
      const auto part = many(static_cast<u16>(0x300 + start), count);
      EXPECT_EQ(read(kChunk, word(start), 1).data, chunk(256, start, count, part)) << start;
    }
  }
  QamSetPidMap(0, 1, &para);
  EXPECT_EQ((fake.routes[{0, 1}].size()), 256U);
  // A ninetieth entry of a chunk is one too many for its record.
  write(kLock, word(1));
  ASSERT_EQ(write(kChunk, chunk(90, 0, 90, many(1, 90))), 0);
  EXPECT_EQ(para.pidMap[0][88].src_pid, 89);
  EXPECT_EQ(para.pidMap[0][89].src_pid, kUnset);
}

TEST_F(PidMap, SearchesKeepWhatTheyCapturedUntilAnotherBegins) {
  static u8 captured[188];
  captured[187] = 8;
  u8 packet[188];
  EXPECT_EQ(qamGetTsPidResult(0, 0, packet), -1) << "no queue yet";
  Queue queue;
  qamTsReadQID[3] = queue.handle();
  struct Step {
    u16 pid;
    u8 table, on, kept;
  };
  for (const Step& step : {Step{0x11, 0x42, 1, 0},
                           {0x11, 0x42, 1, 2},
                           {0x11, 0x46, 1, 0},
                           {0x12, 0x46, 5, 0},
                           {0x12, 0x46, 0, 0},
                           {0x12, 0x46, 1, 0}}) {
    queue.messages.assign(2, os::addressWord(captured));
    EXPECT_EQ(qamSetTSPID(3, 1, step.pid, step.table, step.on), 0);
    EXPECT_EQ(queue.messages.size(), step.kept);
    const qamSearchPSI_t& search = qamSearchPSI[3];
    EXPECT_EQ(search.isSearch, step.on != 0 ? 1 : 0);
    EXPECT_TRUE(step.on == 0 || (search.pid == step.pid && search.tableId == step.table));
  }
  queue.messages.assign(1, os::addressWord(captured));
  EXPECT_EQ(qamGetTsPidResult(3, 0, packet), 0);
  EXPECT_EQ(packet[187], 8);
  EXPECT_EQ(qamGetTsPidResult(3, 1, packet), -1);
}

}  // namespace
}  // namespace test
