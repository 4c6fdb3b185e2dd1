// Procedures for programmes over a link: add a programme of an input to a channel, remove one, list them. A
// channel's tables and its PID map change one after the other, and after a failure between them the first
// change is undone. Used by qamctl and tests.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>

#include "client/link.h"
#include "client/pid_map_upload.h"
#include "client/programme_plan.h"

namespace client {

struct ProgrammeOptions {
  AddOptions add;
  MapOptions map;
  // File for the old tables, as a transport stream, from before their lock until the new ones are on the air;
  // kept if the restore failed. Empty: no file. An existing file belongs to an earlier failure: then nothing
  // is changed.
  std::filesystem::path tablesFile;
  std::chrono::milliseconds patience{5000};  // for the arrival of each table of an input
};

// Refuses a channel with locked tables or a locked map. Throws Error.
OutputState readOutput(Link& link, const Channel& channel);

// `choice` is a programme number or a service's name. When a programme is added, its packets are routed
// first, then the tables that name them are loaded; when it is removed, the order is reversed. Throws Error,
// also as above while nothing was changed; what() of a later error lists what was undone and what was not.
ProgrammePlan addProgramme(Link& link, const Channel& channel, const SourcePort& source,
                           const std::string& choice, const ProgrammeOptions& options);
ProgrammePlan removeProgramme(Link& link, const Channel& channel, const std::string& choice,
                              const ProgrammeOptions& options);

}  // namespace client
