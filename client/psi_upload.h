// The management of a channel's PSI, as procedures over a link: load, clear, set intervals. Used by qamctl
// over UDP and by the headend's own operator in virtual time, so nothing here knows a socket, a thread or a
// clock.
#pragma once

#include <functional>
#include <stdexcept>

#include "client/channel.h"
#include "client/link.h"
#include "client/upload_plan.h"

namespace client {

// A request was refused, or a procedure broke off. what() says how to go on. A LinkError leaves the
// procedures as it is only where nothing was changed yet.
class PsiError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The channel is locked by another client, and nothing was changed.
class PsiLockedError : public PsiError {
 public:
  using PsiError::PsiError;
};

struct UploadOptions {
  bool force =
      false;  // unlock a locked channel and lock it again, so that a dead client's half upload is gone
  std::function<void(std::size_t sent, std::size_t total)>
      progress;  // after each chunk, in packets; may be empty
};

// Replaces the channel's tables: lock, chunks, intervals (CAT last), unlock. Refuses a locked channel unless
// forced (PsiLockedError), and an interval above kMaxInterval. Throws PsiError or LinkError.
void upload(Link& link, const Channel& channel, const UploadPlan& plan, const Intervals& intervals,
            const UploadOptions& options = {});

// Empties the channel: lock and unlock. Locked channels and errors as for upload.
void clear(Link& link, const Channel& channel, bool force);

// Sets intervals while the tables are on the air. The card saves them only when channel 2's CAT interval is
// written: that write comes last, with the value it had where it was not named. Throws PsiError or LinkError.
void setIntervals(Link& link, const Channel& channel, const Intervals& intervals);

}  // namespace client
