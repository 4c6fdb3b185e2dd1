#include "scan.h"

#include <fmt/format.h>

#include <algorithm>
#include <boost/crc.hpp>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

namespace tscheck {
namespace {

constexpr size_t kHeaderSize = 3;         // of a section, up to its length
constexpr size_t kLongestSection = 4096;  // 1024 for the tables of ISO/IEC 13818-1, this for private sections
constexpr uint8_t kStuffing = 0xFF;

bool crcGood(const Bytes& section) {
  boost::crc_optimal<32, 0x04C11DB7, 0xFFFFFFFF> crc;
  crc.process_bytes(section.data(), section.size());
  return crc.checksum() == 0;
}

// Follows the sections of one PID through its packets.
class Assembler {
 public:
  Assembler(uint16_t pid, bool allowCut, Contents& contents, Faults& faults, Scan& scan)
      : pid_(pid), allowCut_(allowCut), contents_(contents), faults_(faults), scan_(scan) {}

  void push(uint64_t index, const uint8_t* payload, size_t size, bool unitStart) {
    packet_ = index;
    if (open_) ++packets_;
    if (unitStart) {
      const size_t pointer = payload[0];
      if (pointer + 1 > size) {
        fault("pointer", "pointer field reaches past the packet");
        return;
      }
      if (open_) append(payload + 1, pointer);
      if (open_) cut();
      started_ = true;
      take(payload + 1 + pointer, size - 1 - pointer);
    } else if (open_) {
      take(payload, size);
    } else if (started_) {
      fault("orphan", "packet continues a section that nothing started");
    }
  }

 private:
  void fault(const char* kind, const char* text) {
    faults_.add(kind, fmt::format("packet {}, PID {:#x}: {}", packet_, pid_, text));
  }

  void cut() {
    ++scan_.cutSections;
    if (!allowCut_) fault("cut", "a section breaks off and another starts");
    open_ = false;
  }

  // Continues the open section, then reads the rest of the packet.
  void take(const uint8_t* data, size_t size) {
    while (size > 0 && (open_ || *data != kStuffing)) {
      if (!open_) start();
      const size_t used = append(data, size);
      data += used;
      size -= used;
    }
    if (std::any_of(data, data + size, [](uint8_t byte) { return byte != kStuffing; }))
      fault("stuffing", "bytes after the last section are not stuffing");
  }

  void start() {
    open_ = true;
    buffer_.clear();
    first_ = packet_;
    packets_ = 1;
  }

  // Reads bytes of the open section and closes it when it is complete; returns the number of bytes read.
  size_t append(const uint8_t* data, size_t size) {
    size_t used = 0;
    while (used < size && open_) {
      const size_t want = buffer_.size() < kHeaderSize ? kHeaderSize : total();
      const size_t part = std::min(want - buffer_.size(), size - used);
      buffer_.insert(buffer_.end(), data + used, data + used + part);
      used += part;
      if (buffer_.size() >= kHeaderSize && buffer_.size() == total()) close();
    }
    return used;
  }

  size_t total() const { return kHeaderSize + (big16(buffer_, 1) & 0xFFFU); }

  void close() {
    open_ = false;
    if (buffer_.size() > kLongestSection) {
      fault("length", "section is longer than sections can be");
    } else if ((buffer_[1] & 0x80) != 0 && !crcGood(buffer_)) {
      fault("crc", fmt::format("section of table {:#x} has a bad CRC", buffer_[0]).c_str());
    } else {
      scan_.sections.push_back({pid_, contents_.number(buffer_), first_, packet_, packets_});
    }
  }

  uint16_t pid_;
  bool allowCut_;
  Contents& contents_;
  Faults& faults_;
  Scan& scan_;
  Bytes buffer_;
  bool open_ = false;
  bool started_ = false;
  uint64_t packet_ = 0;
  uint64_t first_ = 0;
  unsigned packets_ = 0;
};

std::optional<int64_t> pcrOf(const Packet& p) {
  const bool hasField = (p[3] & 0x20) != 0 && p[4] >= 7;
  if (!hasField || (p[5] & 0x10) == 0) return {};
  int64_t base = 0;
  for (size_t i = 6; i < 10; ++i) base = base << 8 | p[i];
  return (base << 1 | p[10] >> 7) * kPcrPerPts + ((p[10] & 1) << 8 | p[11]);
}

bool hasPayload(const Packet& p) {
  return (p[3] & 0x10) != 0;
}

// Where the payload starts; the packet's size when there is none.
size_t payloadStart(const Packet& p) {
  if (!hasPayload(p)) return kPacketSize;
  return std::min<size_t>((p[3] & 0x20) != 0 ? size_t{5} + p[4] : 4, kPacketSize);
}

// One pass over a file.
class Scanner {
 public:
  Scanner(const ScanOptions& options, Contents& contents, Faults& faults)
      : options_(options), contents_(contents), faults_(faults), following_(kPidCount) {}

  Scan run(const std::string& path) {
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "rb"), &std::fclose);
    if (!file) throw std::runtime_error(fmt::format("cannot open {}: {}", path, std::strerror(errno)));
    Packet p{};
    size_t got = 0;
    while ((got = std::fread(p.data(), 1, p.size(), file.get())) == p.size()) packet(p);
    if (got > 0) faults_.add("tail", fmt::format("{} bytes after the last whole packet", got));
    if (std::ferror(file.get()) != 0)
      throw std::runtime_error(fmt::format("cannot read {}: {}", path, std::strerror(errno)));
    return std::move(scan_);
  }

 private:
  // State of a PID between packets.
  struct Following {
    std::optional<Assembler> sections;
    std::optional<Packet> last;
    bool repeated = false;  // the last packet was the second of two equal ones
  };

  void packet(const Packet& p) {
    const uint64_t index = scan_.packets++;
    if (index < options_.fromPacket) return;
    if (p[0] != 0x47) {
      ++scan_.syncErrors;
      faults_.add("sync", fmt::format("packet {} starts with {:#04x}, not with 0x47", index, p[0]));
      return;
    }
    if (options_.onPacket) options_.onPacket(p);
    const auto number = static_cast<uint16_t>((p[1] & 0x1F) << 8 | p[2]);
    if ((p[1] & 0x80) != 0) {
      ++scan_.damaged;
      faults_.add("transport_error", fmt::format("packet {} is marked as damaged", index));
    }
    Pid& pid = scan_.pids[number];
    ++pid.packets;
    if (number == kNullPid) return;
    if (options_.marks) mark(index, number, p);
    Following& following = following_[number];
    if (isRepeated(following, p)) return;
    checkCounter(index, number, pid, following, p);
    following.last = p;
    const size_t start = payloadStart(p);
    if (const auto ticks = pcrOf(p)) pid.pcrs.push_back({index, *ticks, pid.payloadBytes});
    if (options_.payloadPids.contains(number)) keepPayload(index, pid, p, start);
    pid.payloadBytes += kPacketSize - start;
    if (start < kPacketSize && (options_.everyPid || options_.sectionPids.contains(number))) {
      if (!following.sections)
        following.sections.emplace(number, options_.allowCut, contents_, faults_, scan_);
      following.sections->push(index, p.data() + start, kPacketSize - start, (p[1] & 0x40) != 0);
    }
  }

  void mark(uint64_t index, uint16_t pid, const Packet& p) {
    unsigned content = 0;
    if (options_.contentPids.contains(pid)) {
      Bytes bytes(p.begin(), p.end());
      bytes[3] &= 0xF0;
      content = contents_.number(bytes);
    }
    scan_.marks.push_back({index, pid, content});
  }

  // A packet may be sent twice in a row: all bytes equal except those of the PCR.
  bool isRepeated(Following& following, const Packet& p) const {
    const bool mayBe = options_.allowRepeats && !following.repeated && following.last && hasPayload(p);
    const size_t skipped = mayBe && pcrOf(p) && pcrOf(*following.last) ? 6 : 0;
    following.repeated = mayBe && std::equal(p.begin(), p.begin() + 6, following.last->begin()) &&
                         std::equal(p.begin() + 6 + skipped, p.end(), following.last->begin() + 6 + skipped);
    return following.repeated;
  }

  void checkCounter(uint64_t index, uint16_t number, Pid& pid, const Following& following, const Packet& p) {
    if ((p[3] & 0x30) == 0)
      faults_.add("reserved", fmt::format("packet {} has neither payload nor adaptation field", index));
    const bool announced = (p[3] & 0x20) != 0 && p[4] > 0 && (p[5] & 0x80) != 0;
    if (!following.last || announced) return;
    const int due = (((*following.last)[3] & 15) + (hasPayload(p) ? 1 : 0)) & 15;
    if ((p[3] & 15) == due) return;
    ++pid.jumps;
    faults_.add("continuity", fmt::format("packet {}, PID {:#x}: counter {} where {} is due", index, number,
                                          p[3] & 15, due));
  }

  static void keepPayload(uint64_t index, Pid& pid, const Packet& p, size_t start) {
    if ((p[1] & 0x40) != 0 && start < kPacketSize) {
      pid.units.push_back(pid.payload.size());
      pid.unitPackets.push_back(index);
    }
    pid.payload.insert(pid.payload.end(), p.begin() + static_cast<std::ptrdiff_t>(start), p.end());
  }

  const ScanOptions& options_;
  Contents& contents_;
  Faults& faults_;
  Scan scan_;
  std::vector<Following> following_;
};

}  // namespace

unsigned Contents::number(const Bytes& bytes) {
  const auto [at, isNew] = numbers_.try_emplace(bytes, static_cast<unsigned>(byNumber_.size()));
  if (isNew) byNumber_.push_back(&at->first);
  return at->second;
}

uint16_t big16(const Bytes& bytes, size_t at) {
  return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]);
}

Scan scan(const std::string& path, const ScanOptions& options, Contents& contents, Faults& faults) {
  return Scanner(options, contents, faults).run(path);
}

Programmes programmes(const std::string& path) {
  constexpr size_t kLoopStart = 8;
  constexpr size_t kCrcSize = 4;
  Contents contents;
  Faults ignored;
  ScanOptions options;
  options.sectionPids = {0};
  Programmes found;
  for (const Section& section : scan(path, options, contents, ignored).sections) {
    const Bytes& bytes = contents.bytes(section.content);
    if (bytes[0] != 0 || bytes.size() < kLoopStart + kCrcSize) continue;
    for (size_t at = kLoopStart; at + 4 <= bytes.size() - kCrcSize; at += 4)
      if (big16(bytes, at) != 0) found.emplace(big16(bytes, at + 2) & 0x1FFF, big16(bytes, at));
  }
  return found;
}

}  // namespace tscheck
