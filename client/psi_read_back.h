// Reads a channel's tables back from the card, as far as requests allow. Used by qamctl and by tests that
// check a card from outside.
#pragma once

#include <array>
#include <functional>
#include <vector>

#include "client/link.h"
#include "client/psi_upload.h"
#include "protocol/channel.h"

namespace client {

// A read starts at a position of 8 bits and returns at most kPacketsPerChunk: packets from this position of a
// table (of a PID, for the PMT) on cannot be read.
inline constexpr std::size_t kReachablePackets = 255 + kPacketsPerChunk;

struct ReadBack {
  struct Pid {
    u16 pid = 0;
    std::size_t stored = 0;       // packet count of the card
    std::vector<Packet> packets;  // the readable packets, as stored
  };

  struct Table {
    u32 interval_ticks = 0;
    std::size_t stored = 0;  // packet count of the card, on all PIDs
    std::vector<Pid> pids;   // without PIDs that have no packets

    std::size_t read() const;
    std::size_t outOfReach() const { return stored > read() ? stored - read() : 0; }
  };

  bool locked = false;               // an upload is in progress: the tables may be incomplete
  std::array<Table, PSINUM> tables;  // by PsiType

  std::size_t read() const;
  std::size_t outOfReach() const;
};

// The packets as a transport stream: in the order of tables, with new continuity counters for each PID,
// because the stored counters are not sent.
Bytes transportStream(const ReadBack& tables);

// PMT packets are read on the PIDs that the stored PAT names. `progress` is called after each reply with the
// packets read so far. Throws Error, also if another client changes the store meanwhile.
ReadBack readBack(Link& link, const Channel& channel, const std::function<void(std::size_t)>& progress = {});

}  // namespace client
