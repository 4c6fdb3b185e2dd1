// Plans for the programmes of a channel: add a programme of an input, remove one. Map and tables change
// together. See channel_change.h.
#pragma once

#include <chrono>
#include <string>

#include "client/channel_change.h"
#include "client/programme_plan.h"

namespace client {

struct ProgrammeChange {
  ProgrammePlan plan;    // number, name, PMT PID and notes for the report
  ChannelChange change;  // without the parts that stay as they are
};

// Refuses a channel with locked tables or a locked map. Throws Error.
ChannelState readOutput(Link& link, const Channel& channel);

// `choice` is a programme number or a service's name. Each table of the input may take up to `patience` until
// it arrives. Throw Error.
ProgrammeChange planAddProgramme(Link& link, const Channel& channel, const SourcePort& source,
                                 const std::string& choice, const AddOptions& add = {},
                                 const ChangeOptions& options = {},
                                 std::chrono::milliseconds patience = std::chrono::seconds(5));
ProgrammeChange planRemoveProgramme(Link& link, const Channel& channel, const std::string& choice,
                                    const ChangeOptions& options = {});

}  // namespace client
