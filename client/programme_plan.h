// Computes an output's tables and PID map after a programme of an input is added or removed, and lists
// programmes. Pure functions, without a link; `programme` carries the plans out.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "client/programme_draft.h"

namespace client {

inline constexpr u16 kFirstProgrammePid = 0x100;

// The tables of the programmes on an input.
struct InputTables {
  SourcePort input;
  std::vector<Section> pat;
  std::vector<Section> sdt;  // may be empty: then the service has no name in the output
  std::vector<Section> cat;  // may be empty
  std::vector<Section> pmt;  // all sections on the programme's PMT PID, including other programmes
};

struct AddOptions {
  std::optional<u16> base;                 // first PID to assign; else the lowest free block
  std::vector<u16> pass;                   // PIDs routed unchanged: 0x12, 0x14, or any from 0x20 on
  std::optional<u16> transportStreamId{};  // for an output that has none yet
};

struct ProgrammePid {
  u16 pid = 0;
  PidField field;
  std::optional<MapEntry> source;  // nullopt for a PID that the map does not fill
};
struct Programme {
  u16 number = 0;
  u16 pmtPid = 0;
  std::string name;  // empty without an SDT entry
  bool hasPmt = false;
  u16 pcrPid = kNullPid;
  std::vector<ProgrammePid> pids;  // each once: streams, PCR_PID, CA PIDs
};

// The number of the programme that the text names: a number in the PAT, else a service's name in the SDT
// (case is ignored). Throws Error with a list of the programmes if none or several match.
u16 chooseProgramme(const std::vector<Section>& pat, const std::vector<Section>& sdt,
                    const std::string& choice, const std::string& owner);
// The PID of the programme's PMT; nullopt if the PAT has no such programme.
std::optional<u16> pmtPidOf(const std::vector<Section>& pat, u16 number);

// Adds the input's programme `number`. A programme already added from this input is updated: it keeps its
// number and PIDs. Throws Error.
ProgrammePlan planAdd(const ChannelState& output, const InputTables& source, u16 number,
                      const AddOptions& options);
// Removes the programme with this number on the output, and all mapped PIDs that no other programme uses.
// Throws as above.
ProgrammePlan planRemove(const ChannelState& output, u16 number);
std::vector<Programme> programmesOf(const ChannelState& output);

}  // namespace client
