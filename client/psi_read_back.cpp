#include "client/psi_read_back.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <numeric>
#include <set>

#include "client/channel_variables.h"
#include "client/psi_capture.h"

namespace client {
namespace {

constexpr std::size_t kLastStart = 255;

class Reader {
 public:
  Reader(Link& link, const Channel& channel, const std::function<void(std::size_t)>& progress)
      : card_(link, channel), progress_(progress) {}

  ReadBack run() {
    ReadBack result{.locked = card_.tablesLocked(), .tables = {}};
    for (const PsiType type : kAllTables) {
      ReadBack::Table& table = result.tables[type];
      const IntervalReply interval = card_.readInterval(type);
      table.interval_ticks = interval.ticks;
      table.stored = interval.packets;
      if (table.stored > 0) readTable(type, table);
      if (type == PAT) pmtPids_ = pmtPidsOf(table);
    }
    checkCounts(result);
    return result;
  }

 private:
  // A PAT precedes the PMT in the order of tables, so the PIDs of the PMT are known here.
  void readTable(PsiType type, ReadBack::Table& table) {
    const auto own = tablePid(type);
    for (const u16 pid : own ? std::set{*own} : pmtPids_) {
      ReadBack::Pid read = readPid(type, pid);
      if (read.stored > 0) table.pids.push_back(std::move(read));
    }
    if (table.read() > table.stored ||
        (own && (table.pids.empty() || table.pids[0].stored != table.stored))) {
      failOnChange();
    }
  }

  // Tables read before and after a change do not match.
  void checkCounts(const ReadBack& result) {
    if (card_.tablesLocked() != result.locked) failOnChange();
    for (const PsiType type : kAllTables) {
      if (card_.readInterval(type).packets != result.tables[type].stored) failOnChange();
    }
  }

  // The last possible read starts before the end of the previous one, so packets may be read twice.
  ReadBack::Pid readPid(PsiType type, u16 pid) {
    ReadBack::Pid result{.pid = pid, .stored = 0, .packets = {}};
    do {
      const std::size_t start = std::min(result.packets.size(), kLastStart);
      const PacketsReply reply = card_.readPackets(pid, tableId(type), static_cast<u8>(start));
      if (!result.packets.empty() && reply.total != result.stored) failOnChange();
      result.stored = reply.total;
      const std::size_t known = result.packets.size() - start;
      if (reply.packets.size() <= known) {
        if (result.stored != result.packets.size()) failOnChange();
        break;
      }
      result.packets.insert(result.packets.end(), reply.packets.begin() + static_cast<std::ptrdiff_t>(known),
                            reply.packets.end());
      packets_ += reply.packets.size() - known;
      if (progress_) progress_(packets_);
    } while (result.packets.size() < std::min(result.stored, kReachablePackets));
    return result;
  }

  static std::set<u16> pmtPidsOf(const ReadBack::Table& pat) {
    std::set<u16> pids;
    for (const auto& pid : pat.pids) {
      for (const Section& section : gatherSections(pid.packets)) {
        if (section.tableId() == tableId(PAT)) pids.merge(asSet(programmeMapPids(section)));
      }
    }
    return pids;
  }

  static std::set<u16> asSet(const std::vector<u16>& pids) { return {pids.begin(), pids.end()}; }

  [[noreturn]] void failOnChange() const {
    throw Error(
        fmt::format("the tables of {} changed while they were read: another client is loading it; read "
                    "again when it is done",
                    channelName(card_.channel())));
  }

  ChannelVariables card_;
  const std::function<void(std::size_t)>& progress_;
  std::set<u16> pmtPids_;
  std::size_t packets_ = 0;
};

}  // namespace

std::size_t ReadBack::Table::read() const {
  return std::transform_reduce(pids.begin(), pids.end(), std::size_t{0}, std::plus<>(),
                               [](const Pid& pid) { return pid.packets.size(); });
}

std::size_t ReadBack::read() const {
  return std::transform_reduce(tables.begin(), tables.end(), std::size_t{0}, std::plus<>(),
                               [](const Table& table) { return table.read(); });
}

std::size_t ReadBack::outOfReach() const {
  return std::transform_reduce(tables.begin(), tables.end(), std::size_t{0}, std::plus<>(),
                               [](const Table& table) { return table.outOfReach(); });
}

Bytes transportStream(const ReadBack& tables) {
  Bytes stream;
  std::map<u16, u8> continuity;
  for (const auto& table : tables.tables) {
    for (const auto& pid : table.pids) {
      for (Packet packet : pid.packets) {
        setContinuity(packet, continuity[pid.pid]++);
        stream.insert(stream.end(), packet.begin(), packet.end());
      }
    }
  }
  return stream;
}

ReadBack readBack(Link& link, const Channel& channel, const std::function<void(std::size_t)>& progress) {
  return Reader(link, channel, progress).run();
}

}  // namespace client
