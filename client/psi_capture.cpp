#include "client/psi_capture.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <istream>
#include <iterator>
#include <map>
#include <memory>
#include <set>
#include <tuple>
#include <utility>

#include "mpeg/packet_reader.h"
#include "mpeg/section_gatherer.h"

namespace client {
namespace {

constexpr std::size_t kMinLongSection = kSectionHeaderSize + kCrcSize;
constexpr u8 kStuffingTable = 0x72;

// PIDs whose tables no card carries; looked at so that these can be named.
constexpr u16 kOtherTablePids[] = {0x02, 0x12, 0x13, 0x14, 0x1E, 0x1F};

struct NoteText {
  NoteKind kind;
  const char* text;  // {0} the count, {1} "s" unless the count is one
};
constexpr NoteText kNoteTexts[] = {
    {NoteKind::kTransportError, "{0} packet{1} marked as damaged left out"},
    {NoteKind::kScrambled, "{0} scrambled packet{1} left out"},
    {NoteKind::kContinuityError, "{0} continuity error{1}: packets are missing"},
    {NoteKind::kBadPacket, "{0} packet{1} with an impossible adaptation field or pointer left out"},
    {NoteKind::kNotSections, "{0} packet{1} of an elementary stream on a PID of tables left out"},
    {NoteKind::kCutSection, "{0} section{1} cut short left out"},
    {NoteKind::kBadSection, "{0} section{1} of impossible length or form left out"},
    {NoteKind::kCrcError, "{0} section{1} with a CRC error left out"},
    {NoteKind::kNotCurrent, "{0} section{1} not yet current left out"},
    {NoteKind::kOlderVersion, "{0} section{1} of an older version left out"},
    {NoteKind::kWrongPid, "{0} section{1} on a PID where the table does not belong left out"},
    {NoteKind::kOtherTable, "{0} section{1} left out: a card carries no such table"},
};

// Counts losses by what they concern, so that a bad capture gives a short account.
class Account {
 public:
  // Table_ids with one name share a row: an event schedule alone uses sixteen.
  void add(NoteKind kind, u16 pid, std::optional<u8> table, Offset at) {
    const Key key{kind, pid, table ? nameOfTableId(*table) : ""};
    ++rows_.try_emplace(key, Row{.count = 0, .first = at}).first->second.count;
  }

  std::vector<Note> notes() const {
    std::vector<Note> notes;
    for (const auto& [key, row] : rows_) {
      const auto& [kind, pid, name] = key;
      const auto* text = std::ranges::find(kNoteTexts, kind, &NoteText::kind);
      const std::string what = fmt::format(fmt::runtime(text->text), row.count, row.count == 1 ? "" : "s");
      notes.push_back({kind, row.count,
                       fmt::format("{}{}PID {:#06x}: {} (first at byte {})", name, name.empty() ? "" : " on ",
                                   pid, what, row.first)});
    }
    return notes;
  }

 private:
  using Key = std::tuple<NoteKind, u16, std::string>;
  struct Row {
    std::size_t count;
    Offset first;
  };
  std::map<Key, Row> rows_;
};

// The sections of the eight tables, each table of the version that came last. A receiver takes the sections
// of one version only, so a new version does away with every section of the old one.
class SectionStore {
 public:
  // Returns the number of sections that the new one replaces.
  std::size_t add(Section section) {
    const Key key{*tableOfId(section.tableId()), section.pid, section.extension()};
    auto& table = tables_[key];
    std::size_t older = 0;
    if (!table.empty() && table.begin()->second.version() != section.version()) {
      older = table.size();
      table.clear();
    }
    const u8 number = section.number();
    table.insert_or_assign(number, std::move(section));
    return older;
  }

  std::vector<Section> sections() const {
    std::vector<Section> all;
    for (const auto& [key, table] : tables_) {
      for (const auto& [number, section] : table) all.push_back(section);
    }
    return all;
  }

  void noteGaps(std::vector<Note>& notes) const {
    std::size_t pats = 0;
    for (const auto& [key, table] : tables_) {
      const auto& [type, pid, extension] = key;
      if (type == PAT) ++pats;
      std::size_t whole = 0;
      for (const auto& [number, section] : table)
        whole = std::max<std::size_t>(whole, section.lastNumber() + 1u);
      if (table.size() == whole) continue;
      notes.push_back({NoteKind::kIncomplete, whole - table.size(),
                       fmt::format("{} on PID {:#06x}, extension {}: incomplete, {} of {} sections found",
                                   tableName(type), pid, extension, table.size(), whole)});
    }
    if (pats > 1) {
      notes.push_back(
          {NoteKind::kSeveralPats, pats,
           fmt::format("the capture has PATs of {} transport streams: a receiver takes one of them", pats)});
    }
    if (pats == 0)
      notes.push_back(
          {NoteKind::kNoPat, 1, "the capture has no PAT, so programme maps cannot be found in it"});
  }

 private:
  using Key = std::tuple<PsiType, u16, u16>;  // PID, extension
  std::map<Key, std::map<u8, Section>> tables_;
};

// One pass through a capture, on the PIDs of tables and the given ones of programme maps.
class Pass {
 public:
  explicit Pass(const std::set<u16>& pmtPids) : pmtPids_(pmtPids) {
    for (const PsiType type : kAllTables) {
      if (const auto pid = tablePid(type)) listen(*pid);
    }
    for (const u16 pid : kOtherTablePids) listen(pid);
    for (const u16 pid : pmtPids) listen(pid);
  }
  Pass(const Pass&) = delete;
  Pass& operator=(const Pass&) = delete;

  void run(PacketReader& reader) {
    while (const u8* packet = reader.next()) {
      ++packets_;
      const PacketView view(packet, kTsPacketSize);
      const u16 pid = pidOf(view);
      at_ = reader.position();
      if (gatherers_[pid]) gatherers_[pid]->push(view);
    }
    at_ = reader.size();
    for (const auto& gatherer : gatherers_) {
      if (gatherer) gatherer->finish();
    }
  }

  std::size_t packets() const { return packets_; }
  std::vector<Section> sections() const { return store_.sections(); }

  std::vector<Note> notes() const {
    std::vector<Note> notes = account_.notes();
    store_.noteGaps(notes);
    return notes;
  }

 private:
  void listen(u16 pid) {
    using Loss = SectionGatherer::Loss;
    static constexpr std::pair<Loss, NoteKind> kKinds[] = {
        {Loss::kTransportError, NoteKind::kTransportError},   {Loss::kScrambled, NoteKind::kScrambled},
        {Loss::kContinuityError, NoteKind::kContinuityError}, {Loss::kBadPacket, NoteKind::kBadPacket},
        {Loss::kNotSections, NoteKind::kNotSections},         {Loss::kCutSection, NoteKind::kCutSection},
    };
    const auto onSection = [this, pid](std::span<const u8> section) { take(pid, section); };
    const auto onLoss = [this, pid](Loss loss, std::optional<u8> table) {
      account_.add(std::ranges::find(kKinds, loss, &std::pair<Loss, NoteKind>::first)->second, pid, table,
                   at_);
    };
    gatherers_[pid] = std::make_unique<SectionGatherer>(onSection, onLoss);
  }

  bool belongs(PsiType type, u16 pid) const {
    const auto own = tablePid(type);
    return own ? pid == *own : pmtPids_.contains(pid);
  }

  void take(u16 pid, std::span<const u8> bytes) {
    const u8 id = bytes[0];
    const auto drop = [&](NoteKind kind) { account_.add(kind, pid, id, at_); };
    if (id == kStuffingTable) return;
    const auto type = tableOfId(id);
    if (!type) return drop(NoteKind::kOtherTable);
    if (!belongs(*type, pid)) return drop(NoteKind::kWrongPid);
    const bool longForm = (bytes[1] & 0x80) != 0;
    if (!longForm || bytes.size() < kMinLongSection || bytes.size() > kMaxSectionSize) {
      return drop(NoteKind::kBadSection);
    }
    if (crc32(bytes) != 0) return drop(NoteKind::kCrcError);
    Section section{.pid = pid, .bytes = Bytes(bytes.begin(), bytes.end())};
    if (section.number() > section.lastNumber()) return drop(NoteKind::kBadSection);
    if (!section.current()) return drop(NoteKind::kNotCurrent);
    for (std::size_t older = store_.add(std::move(section)); older > 0; --older)
      drop(NoteKind::kOlderVersion);
  }

  const std::set<u16>& pmtPids_;
  std::array<std::unique_ptr<SectionGatherer>, kPids> gatherers_;
  SectionStore store_;
  Account account_;
  Offset at_ = 0;
  std::size_t packets_ = 0;
};

struct PmtPids {
  std::set<u16> pids;
  std::vector<Note> notes;
};

PmtPids findPmtPids(const std::vector<Section>& sections) {
  PmtPids found;
  std::set<u16> bad;
  for (const Section& section : sections) {
    if (tableOfId(section.tableId()) != PAT) continue;
    for (const u16 pid : programmeMapPids(section)) {
      (isReservedPid(pid) ? bad : found.pids).insert(pid);
    }
  }
  for (const u16 pid : bad) {
    found.notes.push_back(
        {NoteKind::kBadPmtPid, 1,
         fmt::format(
             "the PAT names PID {:#06x} for a programme map: not read, because that PID has another use",
             pid)});
  }
  return found;
}

std::vector<Note> fileNotes(const PacketReader& reader) {
  constexpr std::size_t kPlacesNamed = 5;
  std::vector<Note> notes;
  if (reader.leadingBytes() > 0) {
    notes.push_back({NoteKind::kLeadingBytes, 1,
                     fmt::format("{} bytes before the first packet skipped", reader.leadingBytes())});
  }
  const auto& losses = reader.losses();
  if (!losses.empty()) {
    std::string places;
    for (std::size_t i = 0; i < std::min(losses.size(), kPlacesNamed); ++i) {
      places += fmt::format("{}byte {} ({} skipped)", i == 0 ? "" : ", ", losses[i].at, losses[i].skipped);
    }
    notes.push_back(
        {NoteKind::kLostSync, losses.size(),
         fmt::format("synchronisation lost {} time{}: at {}{}", losses.size(), losses.size() == 1 ? "" : "s",
                     places, losses.size() > kPlacesNamed ? ", ..." : "")});
  }
  if (reader.trailingBytes() > 0) {
    notes.push_back({NoteKind::kTrailingBytes, 1,
                     fmt::format("{} bytes at the end, from byte {} on, are no whole packet: skipped",
                                 reader.trailingBytes(), reader.size() - reader.trailingBytes())});
  }
  return notes;
}

void rewind(std::istream& stream, const std::string& name) {
  stream.clear();
  if (!stream.seekg(0)) {
    throw Error(
        fmt::format("{}: cannot be read twice, as a capture must be; store it in a file first", name));
  }
}

std::string withNotes(std::string text, const std::vector<Note>& notes) {
  for (const Note& note : notes) text += "\n  " + note.text;
  return text;
}

}  // namespace

Capture readCapture(std::istream& stream, const std::string& name) {
  rewind(stream, name);
  PacketReader first(stream);
  const std::set<u16> none;
  Pass patPass(none);
  patPass.run(first);
  if (stream.bad()) throw Error(fmt::format("{}: reading failed: {}", name, std::strerror(errno)));
  if (patPass.packets() == 0) {
    throw Error(fmt::format("{}: no transport stream: no packets found in its {} bytes", name, first.size()));
  }
  PmtPids pmt = findPmtPids(patPass.sections());

  rewind(stream, name);
  PacketReader second(stream);
  Pass pass(pmt.pids);
  pass.run(second);
  if (stream.bad()) throw Error(fmt::format("{}: reading failed: {}", name, std::strerror(errno)));

  Capture capture{.sections = pass.sections(), .notes = fileNotes(second), .packets = pass.packets()};
  std::ranges::move(pass.notes(), std::back_inserter(capture.notes));
  std::ranges::move(pmt.notes, std::back_inserter(capture.notes));
  if (capture.sections.empty()) {
    throw Error(
        withNotes(fmt::format("{}: no PSI that a card carries in its {} packets", name, capture.packets),
                  capture.notes));
  }
  return capture;
}

Capture readCapture(const std::filesystem::path& file) {
  std::error_code error;
  if (std::filesystem::is_directory(file, error)) {
    throw Error(fmt::format("{}: a folder, no capture", file.string()));
  }
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw Error(fmt::format("{}: cannot be opened: {}", file.string(), std::strerror(errno)));
  if (!std::filesystem::is_regular_file(file, error)) {
    throw Error(
        fmt::format("{}: no file that can be read twice; save the stream to one first", file.string()));
  }
  return readCapture(stream, file.string());
}

std::vector<Section> gatherSections(const std::vector<Packet>& packets) {
  std::vector<Section> sections;
  u16 pid = 0;
  SectionGatherer gatherer(
      [&](std::span<const u8> bytes) {
        const bool whole =
            bytes.size() >= kMinLongSection && bytes.size() <= kMaxSectionSize && (bytes[1] & 0x80) != 0;
        if (whole && crc32(bytes) == 0)
          sections.push_back({.pid = pid, .bytes = Bytes(bytes.begin(), bytes.end())});
      },
      [](SectionGatherer::Loss, std::optional<u8>) {});
  u8 continuity = 0;
  for (Packet packet : packets) {
    pid = pidOf(packet);
    setContinuity(packet, continuity++);
    gatherer.push(packet);
  }
  return sections;
}

}  // namespace client
