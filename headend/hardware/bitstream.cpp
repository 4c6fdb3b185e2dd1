#include "headend/hardware/bitstream.h"

#include <algorithm>
#include <array>
#include <boost/crc.hpp>
#include <random>
#include <span>

namespace headend {
namespace {

constexpr std::array<u8, 36> kBegin = [] {
  std::array<u8, 36> begin{};
  begin.fill(0xFF);
  std::ranges::copy(std::to_array<u8>({'Q', 'A', 'M', 'B'}), begin.begin() + 32);
  return begin;
}();
constexpr std::size_t kFieldSize = 4;
constexpr u32 kPayloadSize = 120'000;  // similar to a mid-sized part's compressed stream

void append(std::vector<u8>& stream, u32 value) {
  for (int shift = 24; shift >= 0; shift -= 8) stream.push_back(static_cast<u8>(value >> shift));
}

u32 numberAt(const std::vector<u8>& stream, std::size_t at) {
  u32 value = 0;
  for (std::size_t i = 0; i < kFieldSize; ++i) value = value << 8 | stream[at + i];
  return value;
}

// Of length and payload.
u32 crcOf(std::span<const u8> bytes) {
  boost::crc_32_type crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

}  // namespace

std::vector<u8> makeSampleBitstream() {
  std::vector<u8> stream(kBegin.begin(), kBegin.end());
  append(stream, kPayloadSize);
  std::mt19937 content(1);  // NOLINT(cert-msc51-cpp): the same sample each time
  for (u32 i = 0; i < kPayloadSize; ++i) stream.push_back(static_cast<u8>(content()));
  append(stream, crcOf(std::span(stream).subspan(kBegin.size())));
  return stream;
}

void BitstreamReceiver::bit(bool value) {
  shift_ = static_cast<u8>(shift_ << 1 | (value ? 1 : 0));
  if (++bits_ < 8) return;
  bits_ = 0;
  if (!refused_ && !complete_) byte(shift_);
}

void BitstreamReceiver::byte(u8 value) {
  received_.push_back(value);
  const std::size_t count = received_.size();
  if (count <= kBegin.size()) {
    if (value != kBegin[count - 1]) refuse();
    return;
  }
  if (count < kBegin.size() + kFieldSize) return;
  const u32 length = numberAt(received_, kBegin.size());
  if (length == 0) refuse();
  const std::size_t end = kBegin.size() + kFieldSize + length;
  if (count < end + kFieldSize) return;
  complete_ = true;
  if (crcOf(std::span(received_).first(end).subspan(kBegin.size())) != numberAt(received_, end)) refuse();
}

}  // namespace headend
