// One pass over a transport stream file: sync, continuity, clocks and sections, like a stream monitor.
// tscheck shares no code with the programs whose output it checks.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace tscheck {

constexpr unsigned kPacketSize = 188;
constexpr unsigned kPayloadSize = 184;
constexpr int64_t kPacketBits = 1504;
constexpr uint16_t kPidCount = 0x2000;
constexpr uint16_t kNullPid = 0x1FFF;
constexpr int64_t kPcrHz = 27'000'000;
constexpr int64_t kPtsWrap = int64_t{1} << 33;
constexpr int64_t kPcrPerPts = 300;
constexpr int64_t kPcrWrap = kPtsWrap * kPcrPerPts;

using Bytes = std::vector<uint8_t>;
using Packet = std::array<uint8_t, kPacketSize>;

// The errors found. The first texts of each kind are stored, the others are counted.
struct Faults {
  struct Kind {
    uint64_t count = 0;
    std::vector<std::string> first;
  };
  void add(const std::string& kind, const std::string& text) {
    constexpr uint64_t kKept = 20;
    Kind& entry = byKind[kind];
    if (++entry.count <= kKept) entry.first.push_back(text);
  }
  std::map<std::string, Kind> byKind;
};

// Gives equal contents one number, so that a long repeating stream uses little memory.
class Contents {
 public:
  unsigned number(const Bytes& bytes);
  const Bytes& bytes(unsigned number) const { return *byNumber_[number]; }

 private:
  std::map<Bytes, unsigned> numbers_;
  std::vector<const Bytes*> byNumber_;
};

// A whole section with a good CRC. Packets are counted from the start of the file.
struct Section {
  uint16_t pid;
  unsigned content;  // number in Contents
  uint64_t firstPacket;
  uint64_t lastPacket;
  unsigned packets;
};

// A packet of any PID except null packets.
struct Mark {
  uint64_t index;
  uint16_t pid;
  unsigned content;  // without continuity counter; stored for the PIDs of ScanOptions::contentPids, else 0
};

struct Pcr {
  uint64_t packet;
  int64_t ticks;  // of 27 MHz
  size_t at;      // bytes of payload of the PID before it
};

// The data of one PID.
struct Pid {
  uint64_t packets = 0;
  uint64_t jumps = 0;         // of the continuity counter
  uint64_t payloadBytes = 0;  // repeated packets count once
  std::vector<Pcr> pcrs;
  // Stored for the PIDs of ScanOptions::payloadPids.
  Bytes payload;
  std::vector<size_t> units;          // start positions of payload units
  std::vector<uint64_t> unitPackets;  // and their packets
};

struct ScanOptions {
  std::set<uint16_t> sectionPids;               // PIDs that carry sections
  bool everyPid = false;                        // all PIDs carry sections
  bool allowCut = false;                        // a section may break off when a new one starts
  bool allowRepeats = true;                     // a packet may come twice in a row (ISO/IEC 13818-1, 2.4.3.3)
  bool marks = false;                           // keep the marks
  std::set<uint16_t> contentPids;               // PIDs whose marks distinguish packets by content
  std::set<uint16_t> payloadPids;               // PIDs whose payload is stored
  uint64_t fromPacket = 0;                      // skip the packets before
  std::function<void(const Packet&)> onPacket;  // called with every packet in sync, also null packets
};

struct Scan {
  uint64_t packets = 0;  // of the whole file
  uint64_t syncErrors = 0;
  uint64_t damaged = 0;  // transport_error_indicator
  uint64_t cutSections = 0;
  std::vector<Mark> marks;
  std::vector<Section> sections;
  std::map<uint16_t, Pid> pids;  // those that occur
};

// Throws std::runtime_error if the file cannot be read.
Scan scan(const std::string& path, const ScanOptions& options, Contents& contents, Faults& faults);

// (PID, programme number) of every programme that the file's program association sections name.
using Programmes = std::set<std::pair<uint16_t, uint16_t>>;
Programmes programmes(const std::string& path);

uint16_t big16(const Bytes& bytes, size_t at);

template <typename Integer>
Integer modulo(Integer value, Integer wrap) {
  return (value % wrap + wrap) % wrap;
}
// The difference of two readings of a clock that wraps, in the shorter direction.
template <typename Integer>
Integer signedModulo(Integer value, Integer wrap) {
  const Integer up = modulo(value, wrap);
  return up > wrap / 2 ? up - wrap : up;
}

}  // namespace tscheck
