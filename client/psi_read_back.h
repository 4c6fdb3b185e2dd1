// Reads a channel's tables back from the card, as far as requests reach. Used by qamctl and by tests that
// look at a card from outside.
#pragma once

#include <array>
#include <functional>
#include <vector>

#include "client/link.h"
#include "client/psi_upload.h"
#include "protocol/channel.h"

namespace client {

// A read starts at a position of 8 bits and returns at most kPacketsPerChunk: what lies at or beyond this
// position of a table (of a PID, for the PMT) cannot be read.
inline constexpr std::size_t kReachablePackets = 255 + kPacketsPerChunk;

struct ReadBack {
  struct Pid {
    u16 pid = 0;
    std::size_t stored = 0;       // packets that the card counts
    std::vector<Packet> packets;  // those that can be read, as stored
  };

  struct Table {
    u32 interval_ticks = 0;
    std::size_t stored = 0;  // packets that the card counts, on all PIDs
    std::vector<Pid> pids;   // without those that store nothing

    std::size_t read() const;
    std::size_t outOfReach() const { return stored > read() ? stored - read() : 0; }
  };

  bool locked = false;               // an upload is under way: the tables may be incomplete
  std::array<Table, PSINUM> tables;  // by PsiType

  std::size_t read() const;
  std::size_t outOfReach() const;
};

// The packets as a transport stream: in the order of tables, continuity counters counted anew for each PID,
// since those in the store are not what is sent.
Bytes transportStream(const ReadBack& tables);

// PMT packets are looked for on the PIDs that the stored PAT names. `progress` is called after each reply
// with the packets read so far. Throws Error (also when another client changes the store meanwhile) or
// Error.
ReadBack readBack(Link& link, const Channel& channel, const std::function<void(std::size_t)>& progress = {});

}  // namespace client
