#include "client/channel_state.h"

#include <fmt/format.h>

#include <algorithm>

namespace client {
namespace {

constexpr std::size_t kLastStart = 255;

const char* contentOf(u16 lock) {
  return lock == kPsiLock ? "tables" : "PID map";
}

[[noreturn]] void failOnChange(const Channel& channel, u16 lock) {
  fail("the {} of {} changed while it was read: another client is loading it; try again when it is done",
       contentOf(lock), channelName(channel));
}

}  // namespace

// ---- The variables of a channel

bool ChannelVariables::readLock(u16 variable) const {
  return ask(link_, request(Operation::kRead, variable, {}),
             name("read the lock of the {}", contentOf(variable)), decodeNumber) != 0;
}

void ChannelVariables::writeLock(u16 variable, bool lock) const {
  ask(link_, request(Operation::kWrite, variable, encodeNumber(lock ? 1 : 0)),
      name("{} the {}", lock ? "lock" : "unlock", contentOf(variable)));
}

void ChannelVariables::writeTable(const TablePackets& table,
                                  const std::function<void(std::size_t)>& sent) const {
  std::span<const Packet> rest = table.packets;
  while (!rest.empty()) {
    const auto chunk = rest.first(std::min<std::size_t>(kPacketsPerChunk, rest.size()));
    ask(link_, request(Operation::kWrite, kPsiPackets, encodePackets(table.pid, tableId(table.type), chunk)),
        name("write {} on PID {:#06x}", tableName(table.type), table.pid));
    sent(chunk.size());
    rest = rest.subspan(chunk.size());
  }
}

PacketsReply ChannelVariables::readPackets(u16 pid, u8 tableId, u8 startPosition) const {
  return ask(link_, request(Operation::kRead, kPsiPackets, encodePacketsRequest(pid, tableId, startPosition)),
             name("read {} on PID {:#06x}", nameOfTableId(tableId), pid), decodePacketsReply,
             [&](const PacketsReply& r) {
               return r.pid == pid && r.tableId == tableId && r.startPosition == startPosition;
             });
}

void ChannelVariables::writeInterval(PsiType type, u32 ticks) const {
  ask(link_, request(Operation::kWrite, kPsiInterval, encodeInterval(tableId(type), ticks)),
      name("set the interval of {}", tableName(type)));
}

IntervalReply ChannelVariables::readInterval(PsiType type) const {
  return ask(link_, request(Operation::kRead, kPsiInterval, encodeIntervalRequest(tableId(type))),
             name("read the interval of {}", tableName(type)), decodeIntervalReply,
             [&](const IntervalReply& reply) { return reply.tableId == tableId(type); });
}

void ChannelVariables::writeMap(std::span<const MapEntry> entries) const {
  const u32 total = static_cast<u32>(entries.size());
  u32 sent = 0;
  do {
    const auto chunk = entries.subspan(sent, std::min<std::size_t>(kMapEntriesPerChunk, total - sent));
    ask(link_, request(Operation::kWrite, kPidMapChunk, encodeMapChunk(total, sent, chunk)),
        name("write entries {} to {} of the PID map", sent + 1, sent + chunk.size()));
    sent += static_cast<u32>(chunk.size());
  } while (sent < total);
}

std::optional<std::vector<MapEntry>> ChannelVariables::readMap() const {
  std::vector<MapEntry> entries;
  std::size_t total = 0;
  do {
    const u32 position = static_cast<u32>(entries.size());
    const MapChunk chunk =
        ask(link_, request(Operation::kRead, kPidMapChunk, encodeNumber(position)),
            name("read the entries from {} on of the PID map", position + 1), decodeMapChunk,
            [&](const MapChunk& c) { return c.startPosition == position && c.total <= kPidMapSize; });
    const bool isAnother = position > 0 && chunk.total != total;
    total = chunk.total;
    entries.insert(entries.end(), chunk.entries.begin(), chunk.entries.end());
    if (isAnother || entries.size() > total || (chunk.entries.empty() && entries.size() < total))
      return std::nullopt;
  } while (entries.size() < total);
  return entries;
}

// ---- All of a part

namespace {

// Reads the packets on one PID of a table, and returns the count of the card. The last possible read starts
// before the end of the previous one, so packets may be read twice.
std::size_t readPid(const ChannelVariables& card, TablePackets& table, const ReadProgress& onMore) {
  auto& packets = table.packets;
  std::size_t stored = 0;
  do {
    const std::size_t start = std::min(packets.size(), kLastStart);
    const PacketsReply reply = card.readPackets(table.pid, tableId(table.type), static_cast<u8>(start));
    const std::size_t known = packets.size() - start;
    const bool atEnd = reply.packets.size() <= known;
    if ((!packets.empty() && reply.total != stored) || (atEnd && reply.total != packets.size()))
      failOnChange(card.channel(), kPsiLock);
    stored = reply.total;
    if (atEnd) break;
    packets.insert(packets.end(), reply.packets.begin() + static_cast<std::ptrdiff_t>(known),
                   reply.packets.end());
    onMore(reply.packets.size() - known);
  } while (packets.size() < std::min(stored, kReachablePackets));
  return stored;
}

}  // namespace

Tables PsiStore::readable() const {
  Tables all;
  for (const StoredTable& table : tables) all.insert(all.end(), table.pids.begin(), table.pids.end());
  return all;
}

std::size_t PsiStore::outOfReach() const {
  std::size_t sum = 0;
  for (const StoredTable& table : tables) sum += table.outOfReach();
  return sum;
}

PsiStore readPsiOnce(Link& link, const Channel& channel, const ReadProgress& progress) {
  const ChannelVariables card(link, channel);
  PsiStore psi{.locked = card.tablesLocked(), .tables = {}};
  std::set<u16> pmtPids;
  std::size_t packets = 0;
  for (const PsiType type : kAllTables) {  // the PAT, which names the PIDs of the PMT, precedes that
    StoredTable& table = psi.tables[type];
    const IntervalReply interval = card.readInterval(type);
    table = {.interval_ticks = interval.ticks, .stored = interval.packets};
    if (table.stored == 0) continue;
    const auto own = tablePid(type);
    std::size_t stored = 0;
    for (const u16 pid : own ? std::set{*own} : pmtPids) {
      TablePackets onPid{.type = type, .pid = pid, .packets = {}};
      stored += readPid(card, onPid, [&](std::size_t more) {
        packets += more;
        progress(packets);
      });
      if (!onPid.packets.empty()) table.pids.push_back(std::move(onPid));
    }
    if (stored > table.stored || (own && stored != table.stored)) failOnChange(channel, kPsiLock);
    if (type != PAT) continue;
    for (const Section& pat : sectionsOf(table.pids, PAT)) pmtPids.merge(programmeMapPids(pat));
  }
  return psi;
}

PidMap readMapOnce(Link& link, const Channel& channel) {
  const ChannelVariables card(link, channel);
  const bool locked = card.mapLocked();
  auto entries = card.readMap();
  if (!entries) failOnChange(channel, kPidMapLock);
  return {.locked = locked, .entries = *std::move(entries)};
}

void checkUnchanged(Link& link, const Channel& channel, const PsiStore& psi, const std::set<PsiType>& types) {
  const ChannelVariables card(link, channel);
  const auto isSame = [&](PsiType type) {
    return card.readInterval(type).packets == psi.tables[type].stored;
  };
  if (card.tablesLocked() != psi.locked || !std::ranges::all_of(types, isSame))
    failOnChange(channel, kPsiLock);
}

PsiStore readPsi(Link& link, const Channel& channel, const ReadProgress& progress) {
  PsiStore psi = readPsiOnce(link, channel, progress);
  checkUnchanged(link, channel, psi, {kAllTables.begin(), kAllTables.end()});
  return psi;
}

PidMap readMap(Link& link, const Channel& channel) {
  PidMap map = readMapOnce(link, channel);
  // A lock in between clears the map.
  if (ChannelVariables(link, channel).mapLocked() != map.locked) failOnChange(channel, kPidMapLock);
  return map;
}

std::vector<MapEntry> asKept(std::vector<MapEntry> map) {
  std::erase_if(map, isBlank);
  std::ranges::stable_sort(map, {}, sourceKey);
  return map;
}

}  // namespace client
