// The programmes of a channel: lists them, and plans to add a programme of an input or to remove one. Map and
// tables change together. See channel_change.h.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "client/channel_change.h"
#include "client/programme_draft.h"

namespace client {

inline constexpr u16 kFirstProgrammePid = 0x100;

struct ProgrammePid {
  u16 pid = 0;
  PidField field;
  std::optional<MapEntry> source;  // nullopt for a PID that the map does not fill
};
struct Programme {
  u16 number = 0;
  u16 pmtPid = 0;
  std::string name{};  // empty without an SDT entry
  bool hasPmt = false;
  Section pmt{};  // if it has one
  u16 pcrPid = kNullPid;
  std::vector<ProgrammePid> pids{};  // each once: streams, PCR_PID, CA PIDs
};
std::vector<Programme> programmesOf(const ChannelState& output);

// Refuses a channel with locked tables or a locked map. Throws Error.
ChannelState readOutput(Link& link, const Channel& channel);

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

// Adds the input's programme `number` to an output. A programme already added from this input is updated: it
// keeps its number and PIDs. Without a link. Throws Error.
ProgrammePlan planAdd(const ChannelState& output, const InputTables& source, u16 number,
                      const AddOptions& options);

struct ProgrammeChange {
  ProgrammePlan plan;    // number, name, PMT PID and notes for the report
  ChannelChange change;  // without the parts that stay as they are
};

// `choice` is a programme number or a service's name (case is ignored). Each table of the input may take up
// to `patience` until it arrives. Throws Error, with a list of the programmes if none or several match.
ProgrammeChange planAddProgramme(Link& link, const Channel& channel, const SourcePort& source,
                                 const std::string& choice, const AddOptions& add = {},
                                 const ChangeOptions& options = {},
                                 std::chrono::milliseconds patience = std::chrono::seconds(5));
// Removes the programme, and all mapped PIDs that no other programme uses. Throws Error as above.
ProgrammeChange planRemoveProgramme(Link& link, const Channel& channel, const std::string& choice,
                                    const ChangeOptions& options = {});

}  // namespace client
