// Packets and sections of a transport stream, looked at as a monitor would: sync, continuity, CRC, sections
// whole. The judge's own reading of the stream, on purpose without a line of the programs it judges.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace judge {

constexpr unsigned kPacketSize = 188;
constexpr unsigned kPayloadSize = 184;
constexpr uint16_t kPidCount = 0x2000;
constexpr uint16_t kNullPid = 0x1FFF;

using Bytes = std::vector<uint8_t>;

// What was found wrong, by kind; prints the first few of each kind.
class Faults {
 public:
  void add(const std::string& kind, const std::string& text);
  bool none() const { return byKind_.empty(); }
  const std::map<std::string, std::vector<std::string>>& byKind() const { return byKind_; }

 private:
  std::map<std::string, std::vector<std::string>> byKind_;
};

// Gives equal contents one number, so that a long stream of repetitions stays small in memory.
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

// A packet of any PID but the null packets'. Its content leaves the continuity counter out.
struct Mark {
  uint64_t index;
  uint16_t pid;
  unsigned content;  // number in Contents; kept for the PIDs of ScanOptions::contentPids, else 0
};

struct ScanOptions {
  std::set<uint16_t> sectionPids;                // PIDs that carry sections
  bool everyPid = false;                         // all PIDs carry sections
  std::set<uint16_t> contentPids;                // PIDs whose packets are told apart by content
  uint64_t fromPacket = 0;                       // skip what lies before
  bool allowCut = false;                         // a section may break off when a new one starts
  std::function<void(const uint8_t*)> onPacket;  // sees every packet in sync, null packets too
};

struct Scan {
  uint64_t packets = 0;  // of the whole file
  uint64_t cutSections = 0;
  std::vector<Mark> marks;
  std::vector<Section> sections;
};

// Reads the file once. Throws std::runtime_error if it cannot be read.
Scan scan(const std::string& path, const ScanOptions& options, Contents& contents, Faults& faults);

// (PID, programme number) of every programme that the file's program association sections name.
std::set<std::pair<uint16_t, uint16_t>> programmes(const std::string& path);

uint16_t big16(const Bytes& bytes, size_t at);
bool crcGood(const Bytes& section);

}  // namespace judge
