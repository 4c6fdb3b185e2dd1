#include "client/psi_capture.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <iterator>
#include <map>
#include <set>
#include <tuple>
#include <utility>

#include "base/progress.h"
#include "mpeg/packet_reader.h"

namespace client {
namespace {

constexpr u8 kStuffingTable = 0x72;

// PIDs whose tables no card carries; read so that these can be named.
constexpr u16 kOtherTablePids[] = {0x02, 0x12, 0x13, 0x14, 0x1E, 0x1F};

// Of each Loss; {0} is the count, {1} "s" unless the count is one.
constexpr const char* kLossTexts[] = {
    "{0} packet{1} marked as damaged left out",
    "{0} scrambled packet{1} left out",
    "{0} continuity error{1}: packets are missing",
    "{0} packet{1} with an impossible adaptation field or pointer left out",
    "{0} packet{1} of an elementary stream on a PID of tables left out",
    "{0} section{1} cut short left out",
    "{0} section{1} of impossible length or form left out",
    "{0} section{1} with a CRC error left out",
    "{0} section{1} not yet current left out",
    "{0} section{1} of an older version left out",
    "{0} section{1} on a PID where the table does not belong left out",
    "{0} section{1} left out: a card carries no such table",
};

// One pass through a capture, on the PIDs of tables and the given ones of programme maps. Of each table it
// keeps the version that came last: a receiver uses the sections of one version only, so a new version
// replaces every section of the old one.
class Pass {
 public:
  Pass(int number, std::istream& stream, const std::string& name, const std::set<u16>& pmtPids)
      : reader_(stream), pmtPids_(pmtPids) {
    stream.clear();
    const auto size = stream.seekg(0, std::ios::end).tellg();
    if (!stream.seekg(0))
      fail("{}: cannot be read twice, as a capture must be; store it in a file first", name);
    for (const PsiType type : kAllTables) {
      if (const auto pid = tablePid(type)) listen(*pid);
    }
    for (const u16 pid : kOtherTablePids) listen(pid);
    for (const u16 pid : pmtPids) listen(pid);
    readAll(
        base::ReadingProgress(fmt::format("reading {} ({} of 2)", name, number), static_cast<Offset>(size)));
    if (stream.bad()) fail("{}: reading failed: {}", name, std::strerror(errno));
    if (packets_ == 0)
      fail("{}: no transport stream: no packets found in its first {} bytes", name, reader_.size());
  }
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;

  Capture result() const {
    Capture capture{.sections = {}, .notes = {}, .packets = packets_};
    for (const auto& [key, table] : tables_) {
      for (const auto& [number, section] : table) capture.sections.push_back(section);
    }
    noteFile(capture.notes);
    noteLosses(capture.notes);
    noteGaps(capture.notes);
    return capture;
  }

 private:
  void readAll(base::ReadingProgress progress) {
    while (const u8* packet = reader_.next()) {
      ++packets_;
      const PacketView view(packet, kTsPacketSize);
      at_ = reader_.position();
      progress.at(at_);
      if (const auto found = gatherers_.find(pidOf(view)); found != gatherers_.end())
        found->second.push(view);
    }
    at_ = reader_.size();
    for (auto& [pid, gatherer] : gatherers_) gatherer.finish();
  }

  void listen(u16 pid) {
    gatherers_.try_emplace(
        pid, [this, pid](std::span<const u8> section) { take(pid, section); },
        [this, pid](Loss loss, std::optional<u8> table) { count(loss, pid, table); });
  }

  // Table_ids with one name share a row: an event schedule alone uses sixteen.
  void count(Loss loss, u16 pid, std::optional<u8> table, std::size_t times = 1) {
    const std::tuple key(loss, pid, table ? nameOfTableId(*table) : "");
    losses_.try_emplace(key, LossRow{.count = 0, .first = at_}).first->second.count += times;
  }

  void take(u16 pid, std::span<const u8> bytes) {
    const u8 id = bytes[0];
    const auto drop = [&](Loss loss) { count(loss, pid, id); };
    if (id == kStuffingTable) return;
    const auto type = tableOfId(id);
    if (!type) return drop(Loss::kOtherTable);
    const auto own = tablePid(*type);
    if (own ? pid != *own : !pmtPids_.contains(pid)) return drop(Loss::kWrongPid);
    if (!hasLongForm(bytes)) return drop(Loss::kBadSection);
    if (crc32(bytes) != 0) return drop(Loss::kCrcError);
    Section section{.pid = pid, .bytes = Bytes(bytes.begin(), bytes.end())};
    if (section.number() > section.lastNumber()) return drop(Loss::kBadSection);
    if (!section.current()) return drop(Loss::kNotCurrent);
    auto& table = tables_[{*type, pid, section.extension()}];
    if (!table.empty() && table.begin()->second.version() != section.version()) {
      count(Loss::kOlderVersion, pid, id, table.size());
      table.clear();
    }
    table.insert_or_assign(section.number(), std::move(section));
  }

  void noteFile(std::vector<std::string>& notes) const {
    if (const auto bytes = reader_.leadingBytes(); bytes > 0)
      notes.push_back(fmt::format("{} bytes before the first packet skipped", bytes));
    if (const auto losses = reader_.lossCount(); losses > 0) {
      std::vector<std::string> places;
      for (const auto& loss : reader_.firstLosses())
        places.push_back(fmt::format("byte {} ({} skipped)", loss.at, loss.skipped));
      notes.push_back(fmt::format("synchronisation lost {} time{}: at {}{}", losses, losses == 1 ? "" : "s",
                                  fmt::join(places, ", "), losses > places.size() ? ", ..." : ""));
    }
    if (const auto bytes = reader_.trailingBytes(); bytes > 0) {
      notes.push_back(fmt::format("{} bytes at the end, from byte {} on, are no whole packet: skipped", bytes,
                                  reader_.size() - bytes));
    }
  }

  void noteLosses(std::vector<std::string>& notes) const {
    for (const auto& [key, row] : losses_) {
      const auto& [loss, pid, name] = key;
      const std::string what = fmt::format(fmt::runtime(kLossTexts[static_cast<std::size_t>(loss)]),
                                           row.count, row.count == 1 ? "" : "s");
      notes.push_back(fmt::format("{}{}PID {:#06x}: {} (first at byte {})", name, name.empty() ? "" : " on ",
                                  pid, what, row.first));
    }
  }

  void noteGaps(std::vector<std::string>& notes) const {
    std::size_t pats = 0;
    for (const auto& [key, table] : tables_) {
      const auto& [type, pid, extension] = key;
      if (type == PAT) ++pats;
      std::size_t whole = 0;
      for (const auto& [number, section] : table)
        whole = std::max<std::size_t>(whole, section.lastNumber() + 1u);
      if (table.size() == whole) continue;
      notes.push_back(fmt::format("{} on PID {:#06x}, extension {}: incomplete, {} of {} sections found",
                                  tableName(type), pid, extension, table.size(), whole));
    }
    if (pats > 1) {
      notes.push_back(
          fmt::format("the capture has PATs of {} transport streams: a receiver takes one of them", pats));
    }
    if (pats == 0) notes.emplace_back("the capture has no PAT, so programme maps cannot be found in it");
  }

  struct LossRow {
    std::size_t count;
    Offset first;
  };

  PacketReader reader_;
  const std::set<u16>& pmtPids_;
  std::map<u16, SectionGatherer> gatherers_;
  std::map<std::tuple<PsiType, u16, u16>, std::map<u8, Section>> tables_;  // by PID and extension; by number
  std::map<std::tuple<Loss, u16, std::string>, LossRow> losses_;           // by PID and table's name
  Offset at_ = 0;
  std::size_t packets_ = 0;
};

}  // namespace

Capture readCapture(std::istream& stream, const std::string& name) {
  const std::set<u16> none;
  const Capture first = Pass(1, stream, name, none).result();
  std::set<u16> named;
  for (const Section& section : first.sections) {
    if (tableOfId(section.tableId()) == PAT) named.merge(programmeMapPids(section));
  }
  std::set<u16> pmtPids = named;
  std::erase_if(pmtPids, isReservedPid);
  Capture capture = Pass(2, stream, name, pmtPids).result();
  for (const u16 pid : named) {
    if (isReservedPid(pid)) {
      capture.notes.push_back(fmt::format(
          "the PAT names PID {:#06x} for a programme map: not read, because that PID has another use", pid));
    }
  }
  if (capture.sections.empty()) {
    fail("{}: no PSI that a card carries in its {} packets\n  {}", name, capture.packets,
         fmt::join(capture.notes, "\n  "));
  }
  return capture;
}

Capture readCapture(const std::filesystem::path& file) {
  std::error_code error;
  if (std::filesystem::is_directory(file, error)) fail("{}: a folder, no capture", file.string());
  if (std::filesystem::exists(file, error) && !std::filesystem::is_regular_file(file, error))
    fail("{}: no file that can be read twice; save the stream to one first", file.string());
  std::ifstream stream(file, std::ios::binary);
  if (!stream) fail("{}: cannot be opened: {}", file.string(), std::strerror(errno));
  return readCapture(stream, file.string());
}

}  // namespace client
