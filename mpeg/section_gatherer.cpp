#include "mpeg/section_gatherer.h"

#include <algorithm>

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

SectionGatherer::SectionGatherer(OnSection onSection, OnLoss onLoss)
    : onSection_(std::move(onSection)), onLoss_(std::move(onLoss)) {}

void SectionGatherer::push(std::span<const u8> packet) {
  if (hasTransportError(packet)) {  // its header may be wrong too: the counter will show it
    onLoss_(Loss::kTransportError, std::nullopt);
    return;
  }
  if (!hasPayload(packet)) return;
  switch (order(packet)) {
    case Order::kRepeats:
      return;
    case Order::kBreaks:
      cut();
      break;
    case Order::kFollows:
      break;
  }
  auto payload = packet.subspan(payloadStart(packet));
  if (isScrambled(packet) || payload.empty()) {
    onLoss_(isScrambled(packet) ? Loss::kScrambled : Loss::kBadPacket, std::nullopt);
    cut();
  } else if (startsUnit(packet)) {
    start(payload);
  } else if (!open_.empty()) {
    append(payload);
  }
}

// A packet may be sent twice in a row; a third one is as much an error as a gap.
SectionGatherer::Order SectionGatherer::order(std::span<const u8> packet) {
  Order result = Order::kFollows;
  if (previous_) {
    const bool announced = announcesDiscontinuity(packet);
    if (continuityOf(packet) == continuityOf(*previous_) && !announced && !repeated_ &&
        std::equal(packet.begin(), packet.end(), previous_->begin())) {
      repeated_ = true;
      return Order::kRepeats;
    }
    if (continuityOf(packet) != ((continuityOf(*previous_) + 1) & 0x0F)) {
      if (!announced) onLoss_(Loss::kContinuityError, std::nullopt);
      result = Order::kBreaks;
    }
  } else {
    previous_.emplace();
  }
  std::copy(packet.begin(), packet.end(), previous_->begin());
  repeated_ = false;
  return result;
}

// The pointer tells where the first section starts that starts in this packet; before it lies the end of the
// open one.
void SectionGatherer::start(std::span<const u8> payload) {
  if (opensElementaryStream(payload)) {
    onLoss_(Loss::kNotSections, std::nullopt);
    cut();
    return;
  }
  const std::size_t pointer = payload[0];
  if (1 + pointer >= payload.size()) {
    onLoss_(Loss::kBadPacket, std::nullopt);
    cut();
    return;
  }
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
    if (open_.size() >= size) return;
    const auto part = payload.first(std::min(size - open_.size(), payload.size()));
    open_.insert(open_.end(), part.begin(), part.end());
    payload = payload.subspan(part.size());
  };
  take(kLengthEnd);
  if (open_.size() < kLengthEnd) return;
  const std::size_t size = kLengthEnd + static_cast<std::size_t>((open_[1] & 0x0F) << 8 | open_[2]);
  take(size);
  if (open_.size() < size) return;
  const Bytes section = std::move(open_);
  open_.clear();
  onSection_(section);
}

void SectionGatherer::cut() {
  if (open_.empty()) return;
  onLoss_(Loss::kCutSection, open_[0]);
  open_.clear();
}

}  // namespace mpeg
