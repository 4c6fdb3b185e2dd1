#include "mpeg/packet_reader.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <limits>

namespace mpeg {
namespace {

constexpr std::size_t kReadSize = 256 * 1024;
constexpr Offset kTimestampSize = 4;
constexpr Offset kTimestampedStride = 192;
constexpr Offset kStrides[] = {kTsPacketSize, kTimestampedStride, 204};

// How many sync bytes in a row make a raster: if none was known before, and where a packet was due.
constexpr int kSearchRun = 5;
constexpr int kRasterRun = 2;

// A stream starts this early, or the file is none: a file of any size is judged by its first bytes.
constexpr Offset kMostLeadingBytes = Offset{4} << 20;

}  // namespace

const u8* PacketReader::next() {
  hasEnded_ = hasEnded_ || !findNext();
  if (hasEnded_) return nullptr;
  forgetBefore(next_);
  last_ = next_;
  next_ += stride_;
  return &window_[static_cast<std::size_t>(last_ - base_)];
}

// Whether there is a packet, at next_.
bool PacketReader::findNext() {
  if (stride_ == 0 ? !findFirst() : !ensure(next_ + 1)) return false;
  if ((hasSync(next_) || resync()) && ensure(next_ + kTsPacketSize)) return true;
  trailingBytes_ = size() - next_;
  return false;
}

// Whether the stream has all bytes before `end`; reads on as needed.
bool PacketReader::ensure(Offset end) {
  while (size() < end && stream_) {
    if (window_.size() < filled_ + kReadSize) window_.resize(filled_ + kReadSize);
    stream_.read(reinterpret_cast<char*>(&window_[filled_]), static_cast<std::streamsize>(kReadSize));
    filled_ += static_cast<std::size_t>(stream_.gcount());
  }
  return size() >= end;
}

// Makes room in the window, in large steps: a step moves what is kept.
void PacketReader::forgetBefore(Offset position) {
  if (position - base_ < kReadSize) return;
  const auto forgotten = static_cast<std::size_t>(position - base_);
  filled_ -= forgotten;
  std::memmove(window_.data(), &window_[forgotten], filled_);
  base_ = position;
}

// Whether a whole packet starts here and the sync bytes that should follow it do. Where the stream ends
// within the run, one follower is enough, or none where a packet was due here.
bool PacketReader::isRun(Offset start, Offset stride, int length, bool onRaster) {
  if (!ensure(start + kTsPacketSize)) return false;
  for (int i = 0; i < length; ++i) {
    const Offset position = start + static_cast<Offset>(i) * stride;
    if (!ensure(position + 1)) return i >= kRasterRun || onRaster;
    if (at(position) != kSyncByte) return false;
  }
  return true;
}

// The next sync byte that is read already, or the end of what is read.
Offset PacketReader::nextSync(Offset from) const {
  const u8* begin = &window_[static_cast<std::size_t>(from - base_)];
  const auto* found =
      static_cast<const u8*>(std::memchr(begin, kSyncByte, static_cast<std::size_t>(size() - from)));
  return found == nullptr ? size() : from + static_cast<Offset>(found - begin);
}

bool PacketReader::search(Offset from, Offset end) {
  for (Offset start = from; start < end && ensure(start + kTsPacketSize); ++start) {
    forgetBefore(start);
    start = nextSync(start);
    if (start >= end || !ensure(start + kTsPacketSize)) continue;
    for (const Offset stride : kStrides) {
      if (!isRun(start, stride, kSearchRun, false)) continue;
      stride_ = stride;
      next_ = start;
      return true;
    }
  }
  return false;
}

bool PacketReader::findFirst() {
  const auto startsAtOnce = [this](Offset stride) {
    return hasSync(0) && isRun(0, stride, kRasterRun, true);
  };
  if (const auto* stride = std::ranges::find_if(kStrides, startsAtOnce); stride != std::end(kStrides)) {
    stride_ = *stride;
    return true;
  }
  if (!search(0, kMostLeadingBytes)) return false;
  leadingBytes_ = stride_ == kTimestampedStride && next_ >= kTimestampSize ? next_ - kTimestampSize : next_;
  return true;
}

// A damaged sync byte leaves the raster where it was. Lost or inserted bytes move it: the next packet may
// then start within what was taken for the last one.
bool PacketReader::resync() {
  const Offset lost = next_;
  if (isRun(lost + stride_, stride_, kRasterRun, true)) {
    next_ = lost + stride_;
  } else if (!search(last_ + 1, std::numeric_limits<Offset>::max())) {
    return false;
  }
  ++lossCount_;
  if (firstLosses_.size() < kLossesKept)
    firstLosses_.push_back({.at = lost, .skipped = next_ > lost ? next_ - lost : 0});
  return true;
}

}  // namespace mpeg
