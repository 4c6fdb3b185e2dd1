#include "client/psi_upload.h"

#include <fmt/format.h>

#include "client/channel_variables.h"

namespace client {
namespace {

constexpr u32 kCommittingPort = 1;  // after the write of its CAT interval the card saves its record

void refuseLongIntervals(const Intervals& intervals) {
  for (const auto& [type, ticks] : intervals) {
    if (ticks > kMaxInterval) {
      throw Error(fmt::format("an interval of {} ticks for {} is more than {}", ticks, tableName(type),
                              kMaxInterval));
    }
  }
}

std::string recoveryHint(const Channel& channel) {
  const std::string name = channelName(channel);
  return fmt::format(
      "'qamctl psi load {} FILE --force' loads it anew, 'qamctl psi clear {} --force' leaves it empty", name,
      name);
}

// From the lock on the channel is silent, so whoever breaks off there has to say so. Where the link failed in
// the lock or the unlock itself, nobody knows on which side of it.
[[noreturn]] void failSilent(const Channel& channel, bool certain, const std::string& cause) {
  throw Error(fmt::format("{}\nChannel {} {} locked and sends no PSI: {}", cause, channelName(channel),
                          certain ? "is" : "may be", recoveryHint(channel)));
}

[[noreturn]] void failUnsaved(const Channel& channel, const std::string& cause) {
  throw Error(fmt::format("{}\nIntervals of {} may be on the air and not saved: set them again", cause,
                          channelName(channel)));
}

void lock(ChannelVariables& card) {
  try {
    card.lockTables(true);
  } catch (const Error& e) {
    if (!e.gotNoReply()) throw;
    failSilent(card.channel(), false, e.what());
  }
}

void unlock(ChannelVariables& card) {
  try {
    card.lockTables(false);
  } catch (const Error& e) {
    failSilent(card.channel(), !e.gotNoReply(), e.what());
  }
}

// A lock on a locked channel changes nothing: what is left of another upload only goes with an unlock before.
void lockAnew(ChannelVariables& card, bool force) {
  if (card.tablesLocked()) {
    if (!force) {
      throw Error(
          fmt::format("channel {} is locked: another client is loading it, or broke off. When none is at "
                      "work any more, {}",
                      channelName(card.channel()), recoveryHint(card.channel())),
          Error::Kind::kLocked);
    }
    unlock(card);
  }
  lock(card);
}

void writeTables(ChannelVariables& card, const UploadPlan& plan, const UploadOptions& options) {
  std::size_t sent = 0;
  for (const Chunk& chunk : plan.chunks) {
    card.writeChunk(chunk);
    sent += chunk.packets.size();
    if (options.progress) options.progress(sent, plan.packets);
  }
}

// Reading the lock and setting it are two requests: another client may have come in between, and the card
// takes the chunks of both.
void refuseMixture(ChannelVariables& card, const UploadPlan& plan) {
  for (const PsiType type : kAllTables) {
    const std::size_t stored = card.readInterval(type).packets;
    if (stored == plan.tables[type].packets) continue;
    throw Error(
        fmt::format("the card holds {} packets of {} where {} were sent: another client is loading the same "
                    "channel",
                    stored, tableName(type), plan.tables[type].packets));
  }
}

// CAT, the last of the tables, comes last.
void writeIntervals(ChannelVariables& card, const Intervals& intervals) {
  static_assert(kAllTables.back() == CAT);
  for (const auto& [type, ticks] : intervals) card.writeInterval(type, ticks);
}

void writeLocked(ChannelVariables& card, const UploadPlan& plan, const Intervals& intervals,
                 const UploadOptions& options) {
  try {
    writeTables(card, plan, options);
    refuseMixture(card, plan);
    writeIntervals(card, intervals);
  } catch (const Error& e) {
    failSilent(card.channel(), true, e.what());
  }
}

}  // namespace

void upload(Link& link, const Channel& channel, const UploadPlan& plan, const Intervals& intervals,
            const UploadOptions& options) {
  refuseLongIntervals(intervals);
  ChannelVariables card(link, channel);
  lockAnew(card, options.force);
  writeLocked(card, plan, intervals, options);
  unlock(card);
}

void clear(Link& link, const Channel& channel, bool force) {
  ChannelVariables card(link, channel);
  lockAnew(card, force);
  unlock(card);
}

void setIntervals(Link& link, const Channel& channel, const Intervals& intervals) {
  refuseLongIntervals(intervals);
  ChannelVariables card(link, channel);
  ChannelVariables committing(link, {.slot = channel.slot, .port = kCommittingPort});
  Intervals rest = intervals;
  auto last = channel.port == kCommittingPort ? rest.extract(CAT) : Intervals::node_type();
  const u32 lastTicks = last ? last.mapped() : committing.readInterval(CAT).ticks;
  try {
    writeIntervals(card, rest);
    committing.writeInterval(CAT, lastTicks);
  } catch (const Error& e) {
    failUnsaved(channel, e.what());
  }
}

}  // namespace client
