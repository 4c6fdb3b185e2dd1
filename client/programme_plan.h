// What an output's tables and PID map become when a programme of an input is added or one is removed, and
// which programmes there are. Pure functions, without a link; `programme` carries the plans out.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "client/chassis_services.h"
#include "client/programme_tables.h"
#include "protocol/channel.h"
#include "protocol/records.h"

namespace client {

inline constexpr u16 kFirstProgrammePid = 0x100;

// What an output carries now.
struct OutputState {
  Channel channel;
  ReadBack tables;
  std::vector<MapEntry> map;
};

// What an input tells of the programmes in it.
struct InputTables {
  SourcePort input;
  std::vector<Section> pat;
  std::vector<Section> sdt;  // may be empty: then the service has no name in the output either
  std::vector<Section> cat;  // may be empty
  std::vector<Section> pmt;  // what stands on the programme's PMT PID, other programmes included
};

struct AddOptions {
  std::optional<u16> base;                 // from here on PIDs are taken; else the lowest free block
  std::vector<u16> pass;                   // PIDs routed as they are: 0x12, 0x14, or any from 0x20 on
  std::optional<u16> transportStreamId{};  // for an output that has none yet
};

// A plan for an output. Tables that do not change are in it packet by packet as they were.
struct ProgrammePlan {
  u16 number = 0;  // on the output
  u16 pmtPid = 0;
  std::string name;
  std::vector<MapEntry> map;
  UploadPlan tables;
  std::set<PsiType> fresh;         // of which the output had nothing before
  std::vector<std::string> notes;  // sentences for an operator
};

struct ProgrammePid {
  u16 pid = 0;
  PidField field;
  std::optional<MapEntry> source;  // nothing for a PID that the map does not fill
};
struct Programme {
  u16 number = 0;
  u16 pmtPid = 0;
  std::string name;  // empty without an SDT entry
  bool hasPmt = false;
  u16 pcrPid = kNullPid;
  std::vector<ProgrammePid> pids;  // each once: streams, PCR_PID, CA PIDs
};

// In the order in which a card keeps a map, without blank entries.
std::vector<MapEntry> asKept(std::vector<MapEntry> map);

// The number of the programme that the text names: a number in the PAT, else a service's name in the SDT (in
// capitals or not). Throws Error, which lists what there is, for none or several.
u16 chooseProgramme(const std::vector<Section>& pat, const std::vector<Section>& sdt,
                    const std::string& choice, const std::string& owner);
// The PID of the programme's PMT; nothing when the PAT has no such programme.
std::optional<u16> pmtPidOf(const std::vector<Section>& pat, u16 number);

// Adds the input's programme `number`. One that came from there before is brought up to date: it keeps number
// and PIDs. Throws Error or Error.
ProgrammePlan planAdd(const OutputState& output, const InputTables& source, u16 number,
                      const AddOptions& options);
// Removes the programme with this number on the output, and every mapped PID whose last user it was. Throws
// as above.
ProgrammePlan planRemove(const OutputState& output, u16 number);
std::vector<Programme> programmesOf(const OutputState& output);

}  // namespace client
