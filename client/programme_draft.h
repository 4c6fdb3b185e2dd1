// An output while programmes are added or removed: its map and its tables. Only the tables that are put
// change; the others stay unchanged.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/channel_state.h"
#include "client/programme_tables.h"

namespace client {

// A plan for an output. Unchanged tables keep their packets.
struct ProgrammePlan {
  u16 number = 0;  // on the output
  u16 pmtPid = 0;
  std::string name;
  std::vector<MapEntry> map;
  Tables tables;
  Intervals intervals;             // of tables that the output did not have before, and that were stopped
  std::vector<std::string> notes;  // sentences for an operator
};

bool isFrom(const MapEntry& entry, const SourcePort& input);

// The fields that name a PID to be mapped, each PID once, streams first: this is the order of the PIDs in the
// output.
std::vector<PidField> fieldsByPid(const Section& pmt);

// `output` must outlive it.
class ProgrammeDraft {
 public:
  explicit ProgrammeDraft(const ChannelState& output);

  const std::string& owner() const { return owner_; }
  std::vector<MapEntry>& map() { return map_; }
  const std::vector<MapEntry>& map() const { return map_; }
  const std::vector<Section>& pmts() const { return pmts_; }

  std::vector<Section> sections(PsiType type) const;
  // nullopt if the output has none. Throws Error for a table without a whole section.
  std::optional<EntryTable> table(PsiType type) const;
  std::vector<Bytes> entries(PsiType type) const;
  void put(const EntryTable& table, PsiType type) { put(type, tablePid(type).value(), table.sections()); }
  void drop(PsiType type) { put(type, tablePid(type).value(), {}); }

  const Section* pmt(u16 number, u16 pid) const;  // null: none
  // Replaces the programme's PMT, or removes it (nullopt).
  void putPmt(u16 number, u16 pid, const std::optional<Section>& section);

  MapEntry* entryOf(const SourcePort& input, u16 sourcePid);  // null: none
  // PIDs that the output's PMTs name, by programme.
  std::map<u16, std::set<u16>> users() const;
  std::set<u16> usedPids() const;
  // Programmes on the output that use a PID of the input.
  std::set<u16> programmesFrom(const SourcePort& input) const;
  // Removes unused entries from the map, among those that `candidate` selects. An entry that is kept is
  // assigned to a programme that uses it.
  void dropUnused(const std::function<bool(const MapEntry&)>& candidate);

  void note(std::string text) { notes_.push_back(std::move(text)); }

  // Without the programme's own members. Throws Error, also if the map is too long.
  ProgrammePlan plan() const;

 private:
  // No sections: the table is removed.
  void put(PsiType type, u16 pid, const std::vector<Section>& sections);

  std::string owner_;
  const PsiStore& before_;
  Tables tables_;
  std::vector<MapEntry> map_;
  std::vector<Section> pmts_;
  std::vector<std::string> notes_;
};

}  // namespace client
