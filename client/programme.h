// Programmes for an operator, as procedures over a link: adds a programme of an input to a channel, removes
// one, tells which there are. A channel's tables and its PID map change one after the other, and a failure in
// between takes back what was done. Used by qamctl and tests.
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
  // Holds the tables that were there, as a transport stream, from before their lock until the new ones are on
  // the air; kept where the way back failed. Empty: no file. One that stands there already is another
  // failure's: nothing is changed then.
  std::filesystem::path tablesFile;
  std::chrono::milliseconds patience{5000};  // for each table of an input to come
};

// Refuses a channel of which tables or map are locked. Throws Error or
// Error.
OutputState readOutput(Link& link, const Channel& channel);

// `choice` is a programme number or a service's name. What must be on the air first goes first: when a
// programme comes, its packets and then the tables that name them; when it goes, the other way round. Throws
// Error and Error, also as above while nothing was changed; what() of an error that comes later
// says what was taken back, and what was not.
ProgrammePlan addProgramme(Link& link, const Channel& channel, const SourcePort& source,
                           const std::string& choice, const ProgrammeOptions& options);
ProgrammePlan removeProgramme(Link& link, const Channel& channel, const std::string& choice,
                              const ProgrammeOptions& options);

}  // namespace client
