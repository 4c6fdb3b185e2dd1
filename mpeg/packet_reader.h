// Finds the packets of a transport stream in a file, after leading garbage and after a lost sync byte, in
// memory of a fixed size. Packets have 188, 192 (with a time stamp before) or 204 bytes (with parity after).
#pragma once

#include <cstdint>
#include <istream>
#include <string>
#include <vector>

#include "mpeg/packet.h"

namespace mpeg {

using Offset = std::uint64_t;  // a position in a file, which may exceed the numbers in a stream

class PacketReader {
 public:
  struct SyncLoss {
    Offset at;       // position in the file where a sync byte was expected
    Offset skipped;  // bytes to the next packet; 0 if that starts within the packet before
  };

  explicit PacketReader(std::istream& stream) : stream_(stream) {}

  // The first kTsPacketSize bytes of the next packet, valid until the next call; null at the end of the
  // stream, and where its first 4 MiB hold no packets.
  const u8* next();

  // For the packet returned last.
  Offset position() const { return last_; }

  Offset leadingBytes() const { return leadingBytes_; }
  Offset trailingBytes() const { return trailingBytes_; }
  // Bytes read so far: those of the stream, once next() has returned null.
  Offset size() const { return base_ + filled_; }
  std::uint64_t lossCount() const { return lossCount_; }
  const std::vector<SyncLoss>& firstLosses() const { return firstLosses_; }  // kLossesKept at most
  static constexpr std::size_t kLossesKept = 5;

 private:
  bool findNext();
  bool ensure(Offset end);
  void forgetBefore(Offset position);
  bool hasSync(Offset position) { return ensure(position + 1) && at(position) == kSyncByte; }
  bool isRun(Offset start, Offset stride, int length, bool onRaster);
  Offset nextSync(Offset from) const;
  bool search(Offset from, Offset end);
  bool findFirst();
  bool resync();
  u8 at(Offset position) const { return window_[static_cast<std::size_t>(position - base_)]; }

  std::istream& stream_;
  std::vector<u8> window_;  // from base_ on; the first filled_ bytes are those of the stream
  std::size_t filled_ = 0;
  Offset base_ = 0;
  Offset stride_ = 0;  // distance between packets; 0 before the first is found
  Offset last_ = 0;    // start of the packet returned last
  Offset next_ = 0;    // expected start of the next one
  bool hasEnded_ = false;
  Offset leadingBytes_ = 0;
  Offset trailingBytes_ = 0;
  std::uint64_t lossCount_ = 0;
  std::vector<SyncLoss> firstLosses_;
};

}  // namespace mpeg
