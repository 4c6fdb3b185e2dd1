#include "mpeg/section.h"

#include <algorithm>
#include <boost/crc.hpp>

#include "platform/wire.h"

namespace mpeg {
namespace {

constexpr u8 kStuffing = 0xFF;
constexpr std::size_t kLengthEnd = 3;  // table_id and section_length

// 00 00 01 opens a packet of an elementary stream. A section that started like this, behind a pointer of 0,
// would be a PAT without the syntax that a PAT has.
bool opensElementaryStream(std::span<const u8> payload) {
  return payload.size() >= 4 && payload[0] == 0 && payload[1] == 0 && payload[2] == 1 && payload[3] >= 0xBC;
}

}  // namespace

bool hasLongForm(std::span<const u8> section) {
  return section.size() >= kSectionHeaderSize + kCrcSize && section.size() <= kMaxSectionSize &&
         (section[1] & 0x80) != 0;
}

u32 crc32(std::span<const u8> bytes) {
  boost::crc_optimal<32, 0x04C11DB7, 0xFFFFFFFF> crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

std::set<u16> programmeMapPids(const Section& pat) {
  constexpr std::size_t kEntrySize = 4;
  std::set<u16> pids;
  const auto& b = pat.bytes;
  for (std::size_t i = kSectionHeaderSize; i + kEntrySize + kCrcSize <= b.size(); i += kEntrySize) {
    if (wire::get16(&b[i]) != 0) pids.insert(wire::get16(&b[i + 2]) & 0x1FFF);
  }
  return pids;
}

void packSection(const Section& section, u8& continuity, std::vector<Packet>& packets) {
  auto rest = std::span(section.bytes);
  for (bool isFirst = true; !rest.empty(); isFirst = false) {
    Packet& packet = packets.emplace_back(makePacket(section.pid, isFirst, continuity++));
    std::size_t at = kPacketHeaderSize;
    if (isFirst) packet[at++] = 0;  // pointer_field: the section starts directly after it
    const auto part = rest.first(std::min(rest.size(), kTsPacketSize - at));
    std::ranges::copy(part, packet.begin() + static_cast<std::ptrdiff_t>(at));
    rest = rest.subspan(part.size());
  }
}

SectionGatherer::SectionGatherer(OnSection onSection, OnLoss onLoss)
    : onSection_(std::move(onSection)), onLoss_(std::move(onLoss)) {}

void SectionGatherer::push(std::span<const u8> packet) {
  if (hasTransportError(packet))  // its header may be wrong too: the counter will show it
    return onLoss_(Loss::kTransportError, std::nullopt);
  if (!hasPayload(packet)) return;
  const bool announced = announcesDiscontinuity(packet);
  if (previous_) {
    // A packet may be sent twice in a row; a third one is as much an error as a gap.
    if (!repeated_ && !announced && std::ranges::equal(packet, *previous_)) {
      repeated_ = true;
      return;
    }
    if (continuityOf(packet) != ((continuityOf(*previous_) + 1) & 0x0F)) {
      if (!announced) onLoss_(Loss::kContinuityError, std::nullopt);
      cut();
    }
  }
  std::ranges::copy(packet, previous_.emplace().begin());
  repeated_ = false;
  auto payload = packet.subspan(payloadStart(packet));
  if (isScrambled(packet))
    drop(Loss::kScrambled);
  else if (payload.empty())
    drop(Loss::kBadPacket);
  else if (startsUnit(packet))
    start(payload);
  else if (!open_.empty())
    append(payload);
}

// The pointer gives the position of the first section that starts in this packet; before it is the end of the
// open one.
void SectionGatherer::start(std::span<const u8> payload) {
  if (opensElementaryStream(payload)) return drop(Loss::kNotSections);
  const std::size_t pointer = payload[0];
  if (1 + pointer >= payload.size()) return drop(Loss::kBadPacket);
  if (!open_.empty()) {
    auto end = payload.subspan(1, pointer);
    append(end);
  }
  cut();
  auto rest = payload.subspan(1 + pointer);
  while (!rest.empty() && rest[0] != kStuffing) append(rest);
}

// Moves bytes into the open section until that is whole or the payload ends.
void SectionGatherer::append(std::span<const u8>& payload) {
  const auto take = [&](std::size_t size) {
    if (open_.size() < size) {
      const auto part = payload.first(std::min(size - open_.size(), payload.size()));
      base::append(open_, part);
      payload = payload.subspan(part.size());
    }
    return open_.size() >= size;
  };
  if (!take(kLengthEnd) || !take(kLengthEnd + (wire::get16(&open_[1]) & 0x0FFF))) return;
  const Bytes section = std::move(open_);
  open_.clear();
  onSection_(section);
}

void SectionGatherer::drop(Loss loss) {
  onLoss_(loss, std::nullopt);
  cut();
}

void SectionGatherer::cut() {
  if (!open_.empty()) onLoss_(Loss::kCutSection, open_[0]);
  open_.clear();
}

std::vector<Section> gatherSections(const std::vector<Packet>& packets) {
  std::vector<Section> sections;
  u16 pid = 0;
  SectionGatherer gatherer([&](std::span<const u8> bytes) {
    if (hasLongForm(bytes) && crc32(bytes) == 0)
      sections.push_back({.pid = pid, .bytes = Bytes(bytes.begin(), bytes.end())});
  });
  u8 continuity = 0;
  for (Packet packet : packets) {
    pid = pidOf(packet);
    setContinuity(packet, continuity++);
    gatherer.push(packet);
  }
  return sections;
}

}  // namespace mpeg
