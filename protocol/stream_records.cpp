#include "protocol/stream_records.h"

#include <limits>

namespace protocol {
namespace {

struct Wide {
  wire::U32 high, low;
  Wide& operator=(u64 value) {
    high = static_cast<u32>(value >> 32);
    low = static_cast<u32>(value);
    return *this;
  }
  operator u64() const { return u64{high} << 32 | low; }  // NOLINT(google-explicit-constructor)
};

struct StartsHead {
  Wide now, next;
  struct {
    u8 tableId, reserved[3];
    wire::U32 interval, overdue;
  } tables[PSINUM];
};
struct StartRecord {
  Wide number, tick;
  u8 tableId, reserved[3];
  wire::U32 interval, due, held;
};
static_assert(sizeof(StartsHead) == 112 && sizeof(StartRecord) == 32);

struct CountsHead {
  Wide counted_ms;
  wire::U32 pids;
};
struct CountRecord {
  wire::U16 pid;
  u8 flags, reserved;
  wire::U32 rate, lowest, highest;
  Wide packets;
  wire::U32 continuityErrors;
};
static_assert(sizeof(CountsHead) == 12 && sizeof(CountRecord) == 28);

constexpr u8 kHasPcr = 0x01;
constexpr u8 kIsScrambled = 0x02;
constexpr u32 kNoRate = std::numeric_limits<u32>::max();

// Takes a record off the front of `data`; false if there is none.
template <typename Record>
bool takeRecord(std::span<const u8>& data, Record& record) {
  if (data.size() < sizeof record) return false;
  record = base::recordOf<Record>(data);
  data = data.subspan(sizeof record);
  return true;
}

// Appends the records of a list while they fit.
template <typename List, typename Encode>
void appendRecords(Bytes& data, const List& list, const Encode& encodeRecord) {
  for (const auto& each : list) {
    const Bytes record = base::bytesOf(encodeRecord(each));
    if (data.size() + record.size() > kMostStreamData) return;
    base::append(data, record);
  }
}

StartRecord recordOf(const GroupStart& group) {
  StartRecord record{};
  record.number = group.number;
  record.tick = group.tick;
  record.tableId = mpeg::tableId(group.table);
  record.interval = group.interval;
  record.due = group.due;
  record.held = group.held;
  return record;
}

CountRecord recordOf(const PidCount& count) {
  CountRecord record{};
  record.pid = count.pid;
  record.flags = static_cast<u8>((count.hasPcr ? kHasPcr : 0) | (count.isScrambled ? kIsScrambled : 0));
  const auto rates = count.rates.value_or(PidCount::Rates{kNoRate, kNoRate, kNoRate});
  record.rate = rates.now;
  record.lowest = rates.lowest;
  record.highest = rates.highest;
  record.packets = count.packets;
  record.continuityErrors = count.continuityErrors;
  return record;
}

}  // namespace

Bytes encode(const GroupStarts& starts) {
  StartsHead head{};
  head.now = starts.now;
  head.next = starts.next;
  for (const PsiType type : mpeg::kAllTables) {
    head.tables[type].tableId = mpeg::tableId(type);
    head.tables[type].interval = starts.tables[type].interval;
    head.tables[type].overdue = starts.tables[type].overdue;
  }
  Bytes data = base::bytesOf(head);
  appendRecords(data, starts.groups, [](const GroupStart& group) { return recordOf(group); });
  return data;
}

std::optional<GroupStarts> decodeGroupStarts(std::span<const u8> data) {
  StartsHead head{};
  if (!takeRecord(data, head)) return std::nullopt;
  GroupStarts starts{.now = head.now, .next = head.next};
  for (const auto& table : head.tables) {
    const auto type = mpeg::tableOfId(table.tableId);
    if (!type) return std::nullopt;
    starts.tables[*type] = {.interval = table.interval, .overdue = table.overdue};
  }
  for (StartRecord record{}; takeRecord(data, record);) {
    const auto type = mpeg::tableOfId(record.tableId);
    if (!type) return std::nullopt;
    starts.groups.push_back({.number = record.number,
                             .tick = record.tick,
                             .table = *type,
                             .interval = record.interval,
                             .due = record.due,
                             .held = record.held});
  }
  return data.empty() ? std::optional(std::move(starts)) : std::nullopt;
}

Bytes encode(const PidCounts& counts) {
  CountsHead head{};
  head.counted_ms = counts.counted_ms;
  head.pids = counts.pids;
  Bytes data = base::bytesOf(head);
  appendRecords(data, counts.counts, [](const PidCount& count) { return recordOf(count); });
  return data;
}

std::optional<PidCounts> decodePidCounts(std::span<const u8> data) {
  CountsHead head{};
  if (!takeRecord(data, head)) return std::nullopt;
  PidCounts counts{.counted_ms = head.counted_ms, .pids = head.pids};
  for (CountRecord record{}; takeRecord(data, record);) {
    PidCount& count = counts.counts.emplace_back();
    count.pid = record.pid;
    count.hasPcr = (record.flags & kHasPcr) != 0;
    count.isScrambled = (record.flags & kIsScrambled) != 0;
    if (record.rate != kNoRate) count.rates = {record.rate, record.lowest, record.highest};
    count.packets = record.packets;
    count.continuityErrors = record.continuityErrors;
  }
  return data.empty() ? std::optional(std::move(counts)) : std::nullopt;
}

}  // namespace protocol
