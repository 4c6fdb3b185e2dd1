// An output while programmes are added or removed: its map and its tables. Only tables whose entries change
// are written anew; the others stay unchanged.
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

inline bool isFrom(const MapEntry& entry, const SourcePort& input) {
  return entry.sourceSlot == input.slot && entry.sourcePort == input.port;
}

// The fields that name a PID to be mapped, each PID once, streams first: this is the order of the PIDs in the
// output.
std::vector<PidField> fieldsByPid(const Section& pmt);
// All PIDs in it, with kNullPid if a field has that.
std::set<u16> pidSetOf(const Section& pmt);

// A plan in progress. `output` must outlive it.
class ProgrammeDraft : public ProgrammePlan {
 public:
  explicit ProgrammeDraft(const ChannelState& output);

  const std::string owner;  // the output's name for messages

  const std::vector<Section>& pmts() const { return pmts_; }
  // For reading and changing; null if the output has none. Throws Error for a table without a whole section.
  EntryTable* table(PsiType type);
  EntryTable& addTable(PsiType type, u16 extension, Bytes head = {});
  std::vector<Bytes> entries(PsiType type);

  std::optional<Section> pmt(u16 programme, u16 pid) const;
  // Replaces the programme's PMT, or removes it (nullopt).
  void putPmt(u16 programme, u16 pid, const std::optional<Section>& section);

  // Where the map routes a PID of an input to; kNullPid: nowhere.
  u16 routed(const SourcePort& input, u16 sourcePid) const;
  // The number on the input of a programme on the output; 0 if the map has none.
  u16 sourceNumber(u16 programme, const SourcePort& input) const;
  std::set<u16> usedPids();
  // Programmes on the output that use a PID of the input.
  std::set<u16> programmesFrom(const SourcePort& input) const;
  // Removes unused entries from the map, among those that `candidate` selects. An entry that is kept is
  // assigned to a programme that uses it.
  void dropUnused(const std::function<bool(const MapEntry&)>& candidate);

  // The plan with the changed tables, and with intervals. Throws Error if a table has no room.
  ProgrammePlan& finish();

 private:
  // PIDs that the output's PMTs name, by programme.
  std::map<u16, std::set<u16>> users() const;
  // No sections: the table is removed.
  void put(PsiType type, u16 pid, const std::vector<Section>& sections);

  const PsiStore& before_;
  std::map<PsiType, EntryTable> parsed_{};  // tables that were asked for; `tables` has no changes of them
  std::vector<Section> pmts_;
};

}  // namespace client
