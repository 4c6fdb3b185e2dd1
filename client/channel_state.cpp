#include "client/channel_state.h"

#include <fmt/format.h>

#include <algorithm>

#include "client/channel_variables.h"

namespace client {
namespace {

constexpr std::size_t kLastStart = 255;

[[noreturn]] void failOnChange(const Channel& channel, const char* part) {
  throw Error(fmt::format(
      "the {} of {} changed while it was read: another client is loading it; try again when it is done", part,
      channelName(channel)));
}

class PsiReader {
 public:
  PsiReader(Link& link, const Channel& channel, const ReadProgress& progress)
      : card_(link, channel), progress_(progress) {}

  PsiStore run() {
    PsiStore psi{.locked = card_.tablesLocked(), .tables = {}};
    for (const PsiType type : kAllTables) {
      StoredTable& table = psi.tables[type];
      const IntervalReply interval = card_.readInterval(type);
      table.interval_ticks = interval.ticks;
      table.stored = interval.packets;
      if (table.stored > 0) readTable(type, table);
      if (type == PAT) pmtPids_ = pmtPidsOf(table);
    }
    return psi;
  }

 private:
  // A PAT precedes the PMT in the order of tables, so the PIDs of the PMT are known here.
  void readTable(PsiType type, StoredTable& table) {
    const auto own = tablePid(type);
    std::size_t stored = 0;
    for (const u16 pid : own ? std::set{*own} : pmtPids_) {
      TablePackets packets{.type = type, .pid = pid, .packets = {}};
      stored += readPid(packets);
      if (!packets.packets.empty()) table.pids.push_back(std::move(packets));
    }
    if (stored > table.stored || (own && stored != table.stored)) fail();
  }

  // Returns the count of the card. The last possible read starts before the end of the previous one, so
  // packets may be read twice.
  std::size_t readPid(TablePackets& table) {
    auto& packets = table.packets;
    std::size_t stored = 0;
    do {
      const std::size_t start = std::min(packets.size(), kLastStart);
      const PacketsReply reply = card_.readPackets(table.pid, tableId(table.type), static_cast<u8>(start));
      const std::size_t known = packets.size() - start;
      if (!packets.empty() && reply.total != stored) fail();
      stored = reply.total;
      if (reply.packets.size() <= known) {
        if (stored != packets.size()) fail();
        break;
      }
      packets.insert(packets.end(), reply.packets.begin() + static_cast<std::ptrdiff_t>(known),
                     reply.packets.end());
      packets_ += reply.packets.size() - known;
      if (progress_) progress_(packets_);
    } while (packets.size() < std::min(stored, kReachablePackets));
    return stored;
  }

  static std::set<u16> pmtPidsOf(const StoredTable& pat) {
    std::set<u16> pids;
    for (const TablePackets& table : pat.pids) {
      for (const Section& section : sectionsOf(table)) {
        for (const u16 pid : programmeMapPids(section)) pids.insert(pid);
      }
    }
    return pids;
  }

  [[noreturn]] void fail() const { failOnChange(card_.channel(), "tables"); }

  ChannelVariables card_;
  const ReadProgress& progress_;
  std::set<u16> pmtPids_;
  std::size_t packets_ = 0;
};

}  // namespace

std::size_t StoredTable::outOfReach() const {
  const std::size_t read = packetsIn(pids);
  return stored > read ? stored - read : 0;
}

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
  return PsiReader(link, channel, progress).run();
}

PidMap readMapOnce(Link& link, const Channel& channel) {
  ChannelVariables card(link, channel);
  const bool locked = card.mapLocked();
  auto entries = card.readMap();
  if (!entries) failOnChange(channel, "PID map");
  return {.locked = locked, .entries = *std::move(entries)};
}

void checkUnchanged(Link& link, const Channel& channel, const PsiStore& psi, const std::set<PsiType>& types) {
  ChannelVariables card(link, channel);
  bool same = card.tablesLocked() == psi.locked;
  for (const PsiType type : types) same = same && card.readInterval(type).packets == psi.tables[type].stored;
  if (!same) failOnChange(channel, "tables");
}

PsiStore readPsi(Link& link, const Channel& channel, const ReadProgress& progress) {
  PsiStore psi = readPsiOnce(link, channel, progress);
  checkUnchanged(link, channel, psi, {kAllTables.begin(), kAllTables.end()});
  return psi;
}

PidMap readMap(Link& link, const Channel& channel) {
  PidMap map = readMapOnce(link, channel);
  // A lock in between clears the map.
  if (ChannelVariables(link, channel).mapLocked() != map.locked) failOnChange(channel, "PID map");
  return map;
}

std::string ownerName(const Channel& channel) {
  return "channel " + channelName(channel);
}

std::vector<MapEntry> asKept(std::vector<MapEntry> map) {
  std::erase_if(map, isBlank);
  std::ranges::stable_sort(map, {}, sourceKey);
  return map;
}

}  // namespace client
