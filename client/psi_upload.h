// Procedures for a channel's PSI over a link: load, clear, set intervals. Used by qamctl over UDP and by the
// headend's own operator in virtual time, so it does not depend on a socket, a thread or a clock.
#pragma once

#include <functional>
#include <stdexcept>

#include "client/link.h"
#include "client/upload_plan.h"
#include "protocol/channel.h"

namespace client {

struct UploadOptions {
  bool force =
      false;  // unlock a locked channel and lock it again, to discard an aborted upload of another client
  std::function<void(std::size_t sent, std::size_t total)>
      progress;  // after each chunk, in packets; may be empty
};

// Replaces the channel's tables: lock, chunks, intervals (CAT last), unlock. Refuses a locked channel unless
// forced (Error of kLocked), and an interval above kMaxInterval. Throws Error; kNoReply only if nothing was
// changed yet.
void upload(Link& link, const Channel& channel, const UploadPlan& plan, const Intervals& intervals,
            const UploadOptions& options = {});

// Empties the channel: lock and unlock. Locked channels and errors as for upload.
void clear(Link& link, const Channel& channel, bool force);

// Sets intervals while the tables are on the air. The card saves them only when channel 2's CAT interval is
// written: that write is the last, with the old value if no new one is given. Throws Error.
void setIntervals(Link& link, const Channel& channel, const Intervals& intervals);

}  // namespace client
