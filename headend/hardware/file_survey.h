// What must be known of a whole file before it can be played in a loop, from one pass through it. The memory
// does not depend on the file's length.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <fstream>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "headend/hardware/pcr_pace.h"
#include "mpeg/packet_reader.h"

namespace headend {

// A file that is read from its start again and again. Throws std::runtime_error with the path and the reason
// if the file cannot be opened.
class LoopedFile {
 public:
  explicit LoopedFile(const std::string& path);
  void rewind();
  // The next packet; null at the end. Valid until the next call.
  const u8* next() { return reader_->next(); }
  bool failed() const { return stream_.bad(); }
  const mpeg::PacketReader& reader() const { return *reader_; }

 private:
  std::ifstream stream_;
  std::optional<mpeg::PacketReader> reader_;
};

struct FileSurvey {
  struct Damage {  // parts of the file that are not packets
    std::uint64_t syncLosses = 0;
    std::uint64_t leadingBytes = 0;
    std::uint64_t trailingBytes = 0;
  };
  // A part of a PTS or DTS that lies in several packets, or whose PES header does.
  struct Stamp {
    std::uint64_t packet;
    u8 at;     // position in the packet
    u8 first;  // of the field's bytes
    u8 count;
    std::array<u8, mpeg::kPesTimeSize> field;  // the whole field, as it is in the file
  };
  // The PCRs of a PID.
  struct Clock {
    u16 pid = 0;
    u64 firstPacket = 0;
    PcrPace pace;          // at the end of the file
    PacketPace firstPace;  // no pace: no two PCRs follow each other
    u64 span_units = 0;    // from the first PCR to the last
    u64 unpaced = 0;       // packets between PCRs before the first pace
  };
  // When the units of a PID are decoded: DTS, or PTS where there is none.
  struct Decoding {
    u64 first_pts;
    u64 last_pts;
  };

  // Throws std::runtime_error with the path and the reason if the file cannot be used.
  explicit FileSurvey(const std::string& path);

  // Of the PID whose PCRs come first; null if no PID has two that follow each other.
  const Clock* clock() const;
  u64 longestInterval_ticks() const;  // between two PCRs of any PID; 0 if there is none

  u64 packets = 0;
  Damage damage;
  std::array<u8, kPids> continuitySteps{};  // what a PID's continuity counter is ahead after a pass
  std::map<u16, Clock> clocks;
  std::map<u16, Decoding> decoding;
  std::deque<Stamp> stamps;  // by packet
};

}  // namespace headend
