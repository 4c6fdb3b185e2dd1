// PID maps and the PID search, through the registered variables and the entry points.
#include <fmt/format.h>

#include <algorithm>
#include <random>

#include "platform/address_word.h"
#include "tests/module/chassis.h"
#include "ts/qamBack.h"

namespace test {
namespace {

constexpr u16 kLock = 0x2101, kChunk = 0x2102;
constexpr std::array<u16, 3> kUnused = {0xFFFF, 0x001F, 0};

struct Entry {
  u16 slot;
  u32 port;
  u16 pid, out;
  bool operator==(const Entry&) const = default;
};

Bytes numbers(std::initializer_list<u32> values) {
  Bytes bytes;
  for (const u32 value : values) put(bytes, value, 4);
  return bytes;
}

// Type and programme numbers follow from the PID, so that a swap of fields shows.
Bytes chunk(u32 total, u32 start, u32 count, const std::vector<Entry>& entries) {
  Bytes bytes = numbers({total, start, count});
  for (const Entry& e : entries) {
    put(bytes, e.slot, 2);
    put(bytes, e.pid & 0xFF, 2);
    put(bytes, e.port, 4);
    put(bytes, e.pid + 1U, 2);
    put(bytes, e.out + 2U, 2);
    put(bytes, e.pid, 2);
    put(bytes, e.out, 2);
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
  for (u16 i = 0; i < count; ++i) entries.push_back({1, 0, static_cast<u16>(first + i), static_cast<u16>(i)});
  return entries;
}

struct ChunkRow {
  const char* name;
  Bytes data;
  int result;
  std::vector<u16> stored;  // source PIDs; 0xFFFF where nothing was written
  u16 length = 0;           // another vLength than the data's
};

// Source cards with two inputs in slots 1 and 3, and with sixteen in slot 5.
class PidMap : public ModuleTest {
 protected:
  PidMap() : para(*fake.start(0)) {
    for (int i = 0; i < 3; ++i) {
      sources[i].slotNo = static_cast<u8>(1 + 2 * i);
      sources[i].in_port_num = i == 2 ? 16 : 2;
      chassis::cardInsert(&sources[i]);
    }
    fake.log.clear();
    fake.routes.clear();
  }
  int call(bool write, u16 variable, const Bytes& data, u32 port = 0, u16 length = 0) {
    struct {
      chassis::bc_vhdr_t header;
      u8 data[4096];
    } request{};
    request.header = {.paraType = variable,
                      .cardNo = 0,
                      .portNo = port,
                      .vLength = length != 0 ? length : static_cast<u16>(data.size()),
                      .reLength = 4,
                      .reserved = 0};
    std::copy(data.begin(), data.end(), request.data);
    reply.assign(2048, 0xEE);
    const int result = write ? fake.variables->vwr(&request.header, request.data)
                             : fake.variables->vrd(&request.header, reply.data());
    reply.resize(request.header.vLength);
    return result;
  }
  int write(u16 variable, const Bytes& data, u32 port = 0, u16 length = 0) {
    return call(true, variable, data, port, length);
  }
  void upload(const std::vector<Entry>& entries, u32 port = 0) {
    write(kLock, numbers({1}), port);
    const auto total = static_cast<u32>(entries.size());
    for (u32 at = 0; at < total; at += 89) {
      const u32 count = std::min(total - at, 89U);
      const std::vector<Entry> part(entries.begin() + at, entries.begin() + at + count);
      ASSERT_EQ(write(kChunk, chunk(total, at, count, part), port), 0);
    }
    write(kLock, numbers({0}), port);
  }
  std::vector<u16> pids(u32 port = 0) {
    std::vector<u16> all;
    for (u32 i = 0; i < para.pidMapNum[port]; ++i) all.push_back(para.pidMap[port][i].src_pid);
    return all;
  }

  QamCardPara& para;
  Bytes reply;
  chassis::card sources[3] = {};
};

TEST_F(PidMap, UnlockSortsSavesAndSendsAllPositionsToTheRouter) {
  write(kLock, numbers({1}));
  EXPECT_EQ(fake.log, Lines{}) << "the old map stays on the air";
  ASSERT_EQ(call(false, kLock, {}), 0);
  EXPECT_EQ(reply, numbers({1}));
  const std::vector<Entry> entries{
      {3, 0, 0x100, 0x1ABC}, {1, 1, 0x20, 0x222}, {1, 0, 0x1FFF, 7}, {5, 15, 1, 2}};
  ASSERT_EQ(write(kChunk, chunk(4, 0, 4, entries)), 0);
  write(kLock, numbers({0}));
  EXPECT_EQ(fake.log, (Lines{"save 0", "route 0 0"}));
  const auto& route = fake.routes[{0, 0}];
  ASSERT_EQ(route.size(), 256U);
  const std::vector<Entry> sorted{entries[2], entries[1], entries[0], entries[3]};
  for (std::size_t i = 0; i < 4; ++i) EXPECT_EQ(route[i], routed(sorted[i])) << i;
  EXPECT_EQ(std::count(route.begin(), route.end(), kUnused), 252);
  ASSERT_EQ(call(false, kChunk, numbers({0})), 0);
  EXPECT_EQ(reply, chunk(4, 0, 4, sorted));
  EXPECT_EQ(para.pidMap[0][0].reserved, 0xFF);

  fake.log.clear();
  write(kLock, numbers({0}));
  EXPECT_EQ(fake.log, Lines{}) << "an unlock without a lock";
  upload({}, 1);
  EXPECT_EQ(fake.log, (Lines{"save 0", "route 0 1", "save 0"}));
}

// What an exchange sort makes of these keys, by hand; a stable sort would end 1, 2, 3.
TEST_F(PidMap, EqualKeysEndAsTheExchangesLeaveThem) {
  upload({{1, 0, 2, 1}, {1, 0, 2, 2}, {1, 0, 1, 9}, {1, 0, 2, 3}, {1, 0, 1, 8}});
  std::array<u16, 5> out{};
  for (std::size_t i = 0; i < out.size(); ++i) out[i] = para.pidMap[0][i].dst_pid;
  EXPECT_EQ(out, (std::array<u16, 5>{9, 8, 1, 3, 2}));
}

class Chunk : public PidMap, public ::testing::WithParamInterface<ChunkRow> {};

INSTANTIATE_TEST_SUITE_P(
    Each, Chunk,
    ::testing::Values(ChunkRow{"TooLong", chunk(257, 0, 1, many(1, 1)), 1, {}},
                      ChunkRow{"PastTheTotal", chunk(256, 200, 89, many(1, 89)), 0, {}},
                      ChunkRow{"StartPastTheEnd", chunk(256, 256, 0, {}), 0, {}},
                      ChunkRow{"StartFarAway", chunk(256, 0xFFFFFFFF, 1, many(1, 1)), 0, {}},
                      ChunkRow{"Announced", chunk(3, 1, 1, many(7, 1)), 0, {0xFFFF, 7, 0xFFFF}},
                      ChunkRow{"NoSlot6",
                               chunk(3, 0, 3, {{1, 0, 7, 1}, {6, 0, 8, 1}, {1, 0, 9, 1}}),
                               3,
                               {7, 0xFFFF, 0xFFFF}},
                      ChunkRow{"SlotOf256", chunk(1, 0, 1, {{0x101, 0, 8, 1}}), 3, {0xFFFF}},
                      ChunkRow{"EmptySlot", chunk(2, 0, 2, {{1, 1, 7, 1}, {2, 0, 8, 1}}), 21, {7, 0xFFFF}},
                      ChunkRow{"NoThirdInput", chunk(1, 0, 1, {{1, 2, 8, 1}}), 3, {0xFFFF}},
                      ChunkRow{"InputOf256", chunk(1, 0, 1, {{1, 0x100, 8, 1}}), 3, {0xFFFF}},
                      ChunkRow{"CardItself", chunk(1, 0, 1, {{0, 0, 8, 1}}), 3, {0xFFFF}},
                      ChunkRow{"WrongLength", chunk(3, 0, 3, many(1, 3)), 22, {}, 64}),
    kRowName);

TEST_P(Chunk, IsStoredOrRefused) {
  write(kLock, numbers({1}));
  EXPECT_EQ(write(kChunk, GetParam().data, 0, GetParam().length), GetParam().result);
  EXPECT_EQ(pids(), GetParam().stored);
}

TEST_F(PidMap, AFullMapGoesAndComesInChunksOf89) {
  const std::vector<Entry> entries = many(0x300, 256);
  upload(entries, 1);
  for (const auto& [start, count] : {std::pair{0U, 89U}, {89U, 89U}, {178U, 78U}, {256U, 0U}, {300U, 0U}}) {
    ASSERT_EQ(call(false, kChunk, numbers({start}), 1), 0);
    const auto end = std::min<std::size_t>(start + count, 256);
    const std::vector<Entry> part(entries.begin() + std::min(start, 256U),
                                  entries.begin() + static_cast<int>(end));
    EXPECT_EQ(reply, chunk(256, start, count, part));
  }
  // A hundredth entry of a chunk is one too many for its record.
  write(kLock, numbers({1}));
  ASSERT_EQ(write(kChunk, chunk(100, 0, 100, many(1, 100))), 0);
  EXPECT_EQ(para.pidMap[0][88].src_pid, 89);
  EXPECT_EQ(para.pidMap[0][89].src_pid, 0xFFFF);
}

TEST_F(PidMap, ARecordThatClaimsMoreIsReadBackAndRoutedAs256) {
  para.pidMapNum[0] = 257;
  ASSERT_EQ(call(false, kChunk, numbers({178})), 0);
  EXPECT_EQ(Bytes(reply.begin(), reply.begin() + 12), numbers({256, 178, 78}));
  QamSetPidMap(0, 0, &para);
  EXPECT_EQ((fake.routes[{0, 0}].size()), 256U);
  for (const u16 variable : {kLock, kChunk}) {
    EXPECT_EQ(call(false, variable, {}, 0, 3), 22);
    EXPECT_EQ(write(variable, {}, 0, 13), 22);
  }
}

TEST_F(PidMap, ALockEmptiesTheRecordOnceAndLeavesTheRouter) {
  upload(many(0x300, 3));
  const auto onTheAir = fake.routes;
  write(kLock, numbers({1}));
  EXPECT_EQ(pids(), (std::vector<u16>{}));
  const auto* bytes = reinterpret_cast<const u8*>(para.pidMap[0]);
  EXPECT_TRUE(std::all_of(bytes, bytes + sizeof para.pidMap[0], [](u8 byte) { return byte == 0xFF; }));
  write(kChunk, chunk(2, 0, 2, many(7, 2)));
  write(kLock, numbers({1}));
  EXPECT_EQ(pids(), (std::vector<u16>{7, 8}));
  EXPECT_EQ(fake.routes, onTheAir);
}

// Whatever comes in whatever order: a map that is unlocked is sorted and on the router; a locked one is not.
TEST_F(PidMap, RandomSequencesKeepRecordAndRouterTogether) {
  std::mt19937 random(20);
  const auto below = [&](u32 n) { return static_cast<u32>(random() % n); };
  std::array<bool, 2> locked{};
  for (u32 port : {0U, 1U}) upload({}, port);
  for (int step = 0; step < 4000; ++step) {
    const u32 port = below(2);
    const auto routeBefore = fake.routes;
    const u32 action = below(6);
    if (action < 2) {
      write(kLock, numbers({action}), port);
      locked[port] = action == 1;
    } else if (action < 5) {
      if (!locked[port]) continue;  // a client that keeps to the protocol
      std::vector<Entry> entries;
      for (u32 n = below(90); n > 0; --n) {
        entries.push_back({static_cast<u16>(1 + 2 * below(3)), below(3), static_cast<u16>(below(8192)), 5});
      }
      write(kChunk, chunk(below(260), below(258), static_cast<u32>(entries.size()), entries), port);
    } else {
      ASSERT_EQ(call(false, kChunk, numbers({below(260)}), port), 0);
      ASSERT_EQ(reply.size(), 12 + 16 * (reply[10] * 256U + reply[11]));
    }
    for (int p = 0; p < 2; ++p) {
      const auto& route = fake.routes[{0, p}];
      const pidmap_t* map = para.pidMap[p];
      ASSERT_LE(para.pidMapNum[p], 256U);
      if (locked[static_cast<std::size_t>(p)]) {
        ASSERT_EQ(route, routeBefore.at({0, p})) << "step " << step;
        continue;
      }
      for (u32 i = 0; i < 256; ++i) {
        const bool used = i < para.pidMapNum[p];
        // Entries that were announced and never came are all ones, and go to the router as such.
        const Entry entry{static_cast<u16>(map[i].src_slotNo & 0xF), map[i].src_port & 0xFU,
                          static_cast<u16>(map[i].src_pid & 0x1FFF),
                          static_cast<u16>(map[i].dst_pid & 0x1FFF)};
        ASSERT_EQ(route[i], used ? routed(entry) : kUnused) << "step " << step << " position " << i;
        if (i > 0 && used) {
          const auto key = [](const pidmap_t& e) {
            return (e.src_slotNo * 16U + e.src_port) * 8192U + (e.src_pid & 0x1FFFU);
          };
          ASSERT_LE(key(map[i - 1]), key(map[i]));
        }
      }
    }
  }
}

u8 captured[2][188];

TEST_F(PidMap, SearchesKeepWhatTheyCapturedUntilAnotherBegins) {
  u8 packet[188];
  EXPECT_EQ(qamGetTsPidResult(0, 0, packet), -1) << "no queue yet";
  Queue queue;
  qamTsReadQID[3] = queue.handle();
  const auto capture = [&] {
    for (auto& one : captured) queue.messages.push_back(os::addressWord(one));
  };
  captured[0][187] = 8;
  struct Step {
    u16 pid;
    u8 table, on;
    std::size_t kept;
  };
  for (const Step& step : {Step{0x11, 0x42, 1, 0}, Step{0x11, 0x42, 1, 2}, Step{0x11, 0x46, 1, 0},
                           Step{0x12, 0x46, 5, 0}, Step{0x12, 0x46, 0, 0}, Step{0x12, 0x46, 1, 0}}) {
    queue.messages.clear();
    capture();
    EXPECT_EQ(qamSetTSPID(3, 1, step.pid, step.table, step.on), 0);
    EXPECT_EQ(queue.messages.size(), step.kept);
    EXPECT_EQ(qamSearchPSI[3].isSearch, step.on != 0 ? 1 : 0);
    if (step.on == 0) continue;
    EXPECT_EQ(qamSearchPSI[3].pid << 8 | qamSearchPSI[3].tableId, step.pid << 8 | step.table);
  }
  capture();
  EXPECT_EQ(qamGetTsPidResult(3, 0, packet), 0);
  EXPECT_EQ(packet[187], 8);
  EXPECT_EQ(qamGetTsPidResult(3, 1, packet), 0);
  EXPECT_EQ(qamGetTsPidResult(3, 1, packet), -1);
  EXPECT_TRUE(fake.checks.empty());
}

}  // namespace
}  // namespace test
